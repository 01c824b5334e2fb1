"""The stand-in connection server, with scripted faults, a record and orders."""
