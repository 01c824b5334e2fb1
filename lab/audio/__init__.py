"""Audio over UDP: datagrams, sockets, a player of clips and a listener that judges them."""
