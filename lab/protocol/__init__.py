"""The wire protocol of stations, relays and connection servers: messages, tickets, keys."""
