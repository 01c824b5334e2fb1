"""A network in a box: everything a relay talks to, in Python, on loopback addresses.

The wire protocol is written here a second time, independently of the C++ sources, so that the
two implementations check each other. Nothing in this package prints except lab.run and lab.play_screen.

    wire, messages      images, frames, fields, datagrams; one dataclass per message type
    tickets, keys       log-in tickets, the encrypted log-in, RSA keys, TLS certificates
    channel             one TCP or TLS connection with deadlines
    connection_server   the stand-in connection server, with scripted faults
    server_links        its links to relays, each a server_link; server_session serves one:
                        challenge, log-in, traffic; server_script: faults; server_record: messages
    server_relays       the relays that it knows, each a known_relay; relay_roster: their ids
    server_orders       what it can order; server_plan: what it keeps up by itself, which
                        server_upkeep does; ticket_issuer answers requests for tickets
    stations            captioner, encoder, monitor
    audio_stations      stations that speak and stations that listen
    audio_socket        a station's UDP side; audio_wire: its datagrams; udp: rows of sockets
    audio_player        plays a clip of speech; audio_listener: judges what arrived of it
    ogg_opus            the packets of a clip
    scc, cea608         caption files and caption bytes as text
    cluster, pgwire     a private PostgreSQL, and a look into it
    relay               the real binary in a folder of its own
    relay_config        its configuration file; process_log: its output
    network             all of the above put together, in two lines; relay_network: with several
                        joined relays (relay_nodes), whose logs join_log reads
    archive_endpoint    a web server that takes what relays archive, by archive_store;
                        archive_json reads that
    addresses, waiting  loopback addresses and free ports; waits with deadlines
    pytest_relay_log    shows relay logs when a test fails
    run                 the command line of ./dev run; play: its performance
    play_cast           who takes part; play_speakers, play_listeners: what they do
    play_archive        where its captions are archived
    play_faults         what breaks in the middle
    play_account        compares what was sent with what arrived; play_summary judges it
    play_screen         shows what happens
"""
