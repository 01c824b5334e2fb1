/// The HTTP server that an archive posts to, driven step by step by the test that asks what has
/// come: it needs no thread, since the poster has one.
#pragma once

#include <functional>
#include <string>

struct ArchiveRequest {
    /// Request line and header lines, each with its line end; empty when nothing came.
    std::string sHead;
    std::string sBody;
};

class ArchiveEndpoint {
  public:
    ArchiveEndpoint();
    ~ArchiveEndpoint();
    ArchiveEndpoint(const ArchiveEndpoint&) = delete;
    ArchiveEndpoint& operator=(const ArchiveEndpoint&) = delete;

    /// Its address, of HTTP on the loopback network.
    [[nodiscard]] std::string sURL() const;

    /// Waits some seconds for the next request. It has to be answered before the one after it.
    ArchiveRequest nextRequest();

    /// Answers with a status, such as "500 No", and header lines, each with its line end.
    void answer(const std::string& sStatus, const std::string& sHeaders = "");

    /// The body of the next request, which is answered with 200.
    std::string sNextBody();

    /// Whether nothing has come that was not asked for yet.
    [[nodiscard]] bool bQuiet() const;

  private:
    [[nodiscard]] bool bAccept();
    /// Reads until `bComplete` says so; false when the connection ends or nothing comes.
    [[nodiscard]] bool bRead(std::string& rsInto, const std::function<bool()>& bComplete) const;

    int _fdListen;
    int _fdConnection = -1;
};

/// Whether `bCondition` comes true within some seconds.
bool bComesTrue(const std::function<bool()>& bCondition);

/// A port of 127.0.0.1 that refuses connections as long as this lives.
class RefusingPort {
  public:
    RefusingPort();
    ~RefusingPort();
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;
    [[nodiscard]] std::string sURL() const;

  private:
    int _fd;
};
