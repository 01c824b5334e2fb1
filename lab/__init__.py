"""A network in a box: everything a relay communicates with, in Python, on loopback addresses.

The wire protocol is implemented here a second time, independently of the C++ sources, so that
the two implementations check each other. Nothing in this package prints except lab.play.

From the bottom up; a folder imports only from those above it:

    support         addresses and ports, waits with deadlines, TCP and TLS channels, process logs
    protocol        images, frames, message types, tickets, RSA keys, TLS certificates
    media           caption files, caption bytes as text, packets of Opus, the clips themselves
    audio           audio datagrams and sockets, a player of clips, a listener that judges them
    server          the stand-in connection server, with scripted faults, a record and orders
    stations        captioner, encoder, monitor, audio source and receiver, crowds of them
    database        a private PostgreSQL cluster, and a client to look into it
    relay           the real binary in a folder of its own, its configuration, its log
    archive         a web server that stores what relays archive, and a parser of their posts
    network         all of the above put together in two lines, for one relay or several joined ones
    play            the demonstration that ./dev run shows
    pytest_plugins  relay logs in the report of a failed test, the distribution of tests
"""
