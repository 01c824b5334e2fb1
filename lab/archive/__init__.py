"""A web server that stores what relays archive, and a parser of what they post."""
