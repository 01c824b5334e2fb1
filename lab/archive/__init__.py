"""A web server that takes what relays archive, and a reader of what they post."""
