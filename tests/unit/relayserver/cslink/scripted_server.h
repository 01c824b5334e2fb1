/// A connection server on a loopback address of this process's own, driven by the test.
#pragma once

#include <openssl/types.h>

#include <memory>
#include <string>

#include "tests/unit/relayserver/engine_fixture.h"

class ScriptedServer {
  public:
    /// Listens on port 9736, or on a port of the system's choice with `bAnyPort`.
    explicit ScriptedServer(bool bAnyPort = false);
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    [[nodiscard]] const std::string& sAddress() const { return _sAddress; }
    [[nodiscard]] unsigned short nPort() const { return _nPort; }

    /// The next connection; waits for it at most five seconds.
    [[nodiscard]] Peer acceptRelay() const;

  private:
    std::string _sAddress;
    int _fd;
    unsigned short _nPort = 0;
};

/// The dotted loopback address that belongs to this process, as far as that can be had.
std::string sOwnLoopbackAddress();

/// Waits at most five seconds until `rPeer` holds input; false when none came.
[[nodiscard]] bool bWaitForInput(const Peer& rPeer);

/// What the relay sends until `nFrames` whole frames have come, as images; waits at most five
/// seconds for each part.
std::vector<std::string> waitForImages(const Peer& rPeer, size_t nFrames);

/// The server's side of a TLS session over a connection.
class TlsEnd {
  public:
    explicit TlsEnd(const Peer& rPeer);
    ~TlsEnd();
    TlsEnd(const TlsEnd&) = delete;
    TlsEnd& operator=(const TlsEnd&) = delete;

    /// One step of the handshake; true once it is complete.
    [[nodiscard]] bool bStepAccept();
    /// Sends all of it as one record.
    void sendBytes(const std::string& sBytes);
    /// What has come, without waiting.
    [[nodiscard]] std::string sReceived();

  private:
    SSL* _pSession;
};
