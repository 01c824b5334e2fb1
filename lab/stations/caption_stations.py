"""The stations of a caption network: captioner, encoder, monitor.

    captioner = Captioner.connect(relay.address, relay.tcp_port)
    captioner.login(client_id, server.ticket_for(client_id))
    captioner.caption(b"\\x41\\x42")
"""

from __future__ import annotations

from lab.media.cea608 import Decoder
from lab.protocol import messages
from lab.stations.station import Station
from lab.support.channel import Channel

__all__ = ["Captioner", "Encoder", "Monitor", "Station", "video_pages"]

#: The length of the pages into which senders cut a video frame.
_VIDEO_PAGE_LEN = 400


class Captioner(Station):
    """Sends caption bytes."""

    def caption(self, pairs: bytes, dest_id: int = 0) -> messages.Caption:
        """Sends one caption message and returns it."""
        message = messages.Caption(pairs, dest_id=dest_id)
        self.send(message)
        return message


class Encoder(Station):
    """Receives captions and reads them as text; sends video feedback."""

    def __init__(self, link: Channel, name: str = "") -> None:
        super().__init__(link, name)
        self.decoder = Decoder()
        self.captions: list[bytes] = []

    def receive_caption(self, within_secs: float = 5.0) -> tuple[bytes, list[str]]:
        """The next caption message: its bytes, and the texts that it completes."""
        message = self.expect(messages.Caption, within_secs)
        self.captions.append(message.caption)
        return message.caption, self.decoder.feed(message.caption)

    def send_video(self, frame: bytes, sequence: int = 0, video_format: str = "jpeg") -> None:
        """Sends a video frame in pages."""
        self.send_all(video_pages(frame, sequence, video_format, self.client_id))


class Monitor(Station):
    """Watches video feedback."""

    def receive_video(self, within_secs: float = 5.0) -> tuple[int, bytes]:
        """Sequence number and bytes of the next whole frame; AssertionError when its pages
        are incomplete or out of order."""
        first = self.expect(messages.VideoFeedback, within_secs, page=1)
        frame = first.video
        for number in range(2, first.total_pages + 1):
            page = self.expect(messages.VideoFeedback, within_secs, page=number)
            if page.sequence != first.sequence:
                raise AssertionError(f"page {number} belongs to another frame: {page}")
            frame += page.video
        return first.sequence, frame


def video_pages(
    frame: bytes, sequence: int = 0, video_format: str = "jpeg", sender_id: int = 0
) -> list[messages.VideoFeedback]:
    """A video frame cut into pages. For bytes that need no escape: escaped ones may not fit."""
    cuts = range(0, max(len(frame), 1), _VIDEO_PAGE_LEN)
    total = len(cuts)
    return [
        messages.VideoFeedback(
            number * 256 + total,
            sequence,
            video_format,
            frame[start : start + _VIDEO_PAGE_LEN],
            sender_id=sender_id,
        )
        for number, start in enumerate(cuts, start=1)
    ]
