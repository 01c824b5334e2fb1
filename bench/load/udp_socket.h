/// One UDP socket of the load program, bound to one of our loopback addresses.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Load {

class UdpSocket {
  public:
    UdpSocket() = default;
    ~UdpSocket();
    UdpSocket(UdpSocket&& rOther) noexcept;
    UdpSocket& operator=(UdpSocket&& rOther) noexcept;
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    [[nodiscard]] int getFileDesc() const { return fd; }
    /// The address to which it is bound.
    [[nodiscard]] const sockaddr_in& siOwnAddress() const { return siOwn; }

    /// Sends one datagram; ends the program if the kernel refuses it.
    void sendTo(const sockaddr_in& siTo, std::string_view svDatagram) const;
    /// Repeats a request until a datagram arrives for which `bIsAnswer` is true, and returns that
    /// one. Others are discarded. Ends the program after 10 s without an answer.
    [[nodiscard]] std::string sExchange(
        const sockaddr_in& siTo, std::string_view svRequest,
        const std::function<bool(std::string_view)>& bIsAnswer) const;

  private:
    friend std::vector<UdpSocket> openUdpRow(const std::string& sAddress, int nSockets);
    /// False when the port is taken. Port 0 means any.
    [[nodiscard]] bool bBind(const std::string& sAddress, std::uint16_t nPort);

    int fd = -1;
    sockaddr_in siOwn{};
};

/// Sockets at one address whose ports are two apart: one for the sound, and those for its error
/// correction. Ends the program if none are free.
[[nodiscard]] std::vector<UdpSocket> openUdpRow(const std::string& sAddress, int nSockets);

/// A dotted address for each UDP client, never that of a TCP client.
[[nodiscard]] std::string sUdpClientAddress(int nClientNet, int nNumber);

/// Ends the program if the dotted address is invalid.
[[nodiscard]] sockaddr_in siMakeAddress(const std::string& sAddress, std::uint16_t nPort);

}  // namespace Load
