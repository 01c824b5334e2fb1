"""A relay's configuration: every key, rendered as the text of its configuration file."""

from __future__ import annotations

import dataclasses

from lab.protocol.keys import Certificate

Value = str | int | float


@dataclasses.dataclass
class RelayConfig:
    """None leaves a key out. `keys` sets or (None) removes any key by (section, key), last;
    `text` replaces the whole file."""

    servers: list[str] = dataclasses.field(default_factory=list)
    tcp_port: int | None = None
    rtp_port: int | None = None
    tls_port: int | None = None
    certificate: Certificate | None = None
    bind_address: str | None = None
    bind_device: str | None = None
    public_address: str | None = None
    private_address: str | None = None
    log_folder: str | None = None
    company: str | None = "company"
    username: str | None = "relay"
    password: str | None = "secret"
    server_tls_port: int | None = None
    max_time_away_secs: int | None = None
    fec: bool | None = None
    archive_endpoint: str | None = None
    archive_interval_secs: int | None = None
    archive_username: str | None = None
    archive_password: str | None = None
    archive_append_seq: bool | None = None
    archive_content_type: str | None = None
    wavecast: bool | None = None
    keys: dict[tuple[str, str], Value | None] = dataclasses.field(default_factory=dict)
    text: str | None = None

    def render(self) -> str:
        """The configuration file."""
        if self.text is not None:
            return self.text
        sections: dict[str, dict[str, Value]] = {}
        for (section, key), value in {**self._settings(), **self.keys}.items():
            if value is not None:
                sections.setdefault(section, {})[key] = value
        lines = []
        for section, entries in sections.items():
            lines.append(f"[{section}]")
            lines += [f"{key} = {value}" for key, value in entries.items()]
            lines.append("")
        return "\n".join(lines)

    def _settings(self) -> dict[tuple[str, str], Value | None]:
        certificate = self.certificate
        archived = self.archive_endpoint is not None
        settings: dict[tuple[str, str], Value | None] = {
            ("Ports", "tcp"): self.tcp_port,
            ("Ports", "rtp"): self.rtp_port,
            ("Ports", "ssl"): self.tls_port,
            ("SSL", "pem_file"): str(certificate.crt_file) if certificate else None,
            ("SSL", "key_file"): str(certificate.key_file) if certificate else None,
            ("Public", "listen_addr"): self.public_address,
            ("PrivateNetwork", "listen_addr"): self.private_address,
            ("Bind", "device"): self.bind_device,
            ("Bind", "address"): self.bind_address,
            ("Logging", "folder"): self.log_folder,
            ("Login", "company"): self.company,
            ("Login", "username"): self.username,
            ("Login", "password"): self.password,
            ("Servers", "use_ssl"): "yes" if self.server_tls_port is not None else None,
            ("Servers", "cs_ssl_port"): self.server_tls_port,
            ("Servers", "max_time_away_from_cs"): self.max_time_away_secs,
            ("FEC", "enable"): _yes_or_no(self.fec),
            ("Archive", "enable"): "yes" if archived else None,
            ("Archive", "endpoint"): self.archive_endpoint,
            ("Archive", "interval"): self.archive_interval_secs,
            ("Archive", "username"): self.archive_username,
            ("Archive", "password"): self.archive_password,
            ("Archive", "append_seq"): _yes_or_no(self.archive_append_seq),
            ("Archive", "content_type"): self.archive_content_type,
            ("Features", "wcast"): _yes_or_no(self.wavecast),
        }
        for index, server in enumerate(self.servers):
            key = "primary" if index == 0 else f"backup{index}"
            settings["Servers", key] = server
        return settings


def _yes_or_no(value: bool | None) -> str | None:
    return None if value is None else "yes" if value else "no"
