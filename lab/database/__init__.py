"""A private PostgreSQL cluster, and a client to look into it."""
