"""The command line: version, ports, configuration file, and options of earlier releases."""

from __future__ import annotations

import pytest

VERSION = "relayserver Version 3.4.8"


def test_only_the_version_is_shown(make_relay):
    relay = make_relay(arguments=["-v"], ready=False)
    assert relay.wait_exit() == 0
    assert relay.log.lines == [VERSION]


def test_version_is_the_first_line_of_any_start(relay):
    assert relay.log.lines[0] == VERSION


@pytest.mark.parametrize("option", ["-t", "--tport"])
def test_the_tcp_port_of_the_command_line_wins(make_relay, option):
    relay = make_relay(start=False, ready=False)
    port = relay.config.tcp_port
    relay.config.keys["Ports", "tcp"] = 1024
    relay.arguments += [option, str(port)]
    relay.start().wait_ready()
    assert relay.log.count(f"using port {port} for tcp") == 1


@pytest.mark.parametrize("option", ["-r", "--rport"])
def test_the_first_audio_port_of_the_command_line_wins(make_relay, option):
    relay = make_relay(start=False, ready=False)
    port = relay.config.rtp_port
    relay.config.keys["Ports", "rtp"] = 1024
    relay.arguments += [option, str(port)]
    relay.start().wait_ready()
    assert relay.log.count(f"using port range {port} to {port + 11} for rtp") == 1


def test_zero_ports_leave_the_configuration_in_effect(make_relay):
    relay = make_relay(arguments=["-d", "-f", "tessel_rs.conf", "-t", "0", "-r", "none"])
    assert relay.log.count(f"using port {relay.config.tcp_port} for tcp") == 1


def test_options_of_earlier_releases_are_accepted(make_relay):
    make_relay(arguments=["-d", "-s", "x", "-l", "y", "-f", "tessel_rs.conf"])


def test_the_default_configuration_file_is_used_without_an_option(make_relay):
    make_relay(arguments=["-d"])


def test_a_configuration_file_name_that_is_too_long_is_ignored(make_relay):
    relay = make_relay(arguments=["-d", "--conf", "x" * 257])
    assert relay.log.count("conf file name invalid - ignoring") == 1


def test_a_configuration_file_name_of_256_characters_is_accepted(make_relay):
    relay = make_relay(start=False, ready=False)
    name = "./" * 121 + "tessel_rs.conf"
    assert len(name) == 256
    relay.arguments = ["-d", "-f", name]
    relay.start().wait_ready()
    assert relay.log.count("conf file name invalid") == 0


@pytest.mark.parametrize("port", ["1023", "65536", "-1", "99999999999999999999"])
def test_a_tcp_port_out_of_range_ends_the_start(make_relay, port):
    relay = make_relay(arguments=["-d", "-f", "tessel_rs.conf", "-t", port], ready=False)
    relay.expected_status = 1
    assert relay.wait_exit() == 1
    shown = str(min(int(port), 2147483647))
    assert f"invalid tcp port option {shown}" in relay.log.lines


@pytest.mark.parametrize("port", ["1023", "65526", "2147483647", "-7"])
def test_an_audio_port_out_of_range_ends_the_start(make_relay, port):
    relay = make_relay(arguments=["-d", "-f", "tessel_rs.conf", "-r", port], ready=False)
    relay.expected_status = 1
    assert relay.wait_exit() == 1
    assert f"invalid rtp port option {port}" in relay.log.lines
