/// One UDP socket of the load program, bound to a loopback address of ours.
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
    /// Where it is bound.
    [[nodiscard]] const sockaddr_in& siOwnAddress() const { return siOwn; }

    /// Sends one datagram; ends the program when the kernel refuses it.
    void sendTo(const sockaddr_in& siTo, std::string_view svDatagram) const;
    /// Sends a request until a datagram comes for which `bIsAnswer` holds, and returns that one.
    /// Others are forgotten. Without an answer for 10 s it ends the program.
    [[nodiscard]] std::string sExchange(
        const sockaddr_in& siTo, std::string_view svRequest,
        const std::function<bool(std::string_view)>& bIsAnswer) const;

  private:
    friend std::vector<UdpSocket> openUdpRow(const std::string& sAddress, int nSockets);
    /// False when the port is taken. Port 0 stands for any.
    [[nodiscard]] bool bBind(const std::string& sAddress, std::uint16_t nPort);

    int fd = -1;
    sockaddr_in siOwn{};
};

/// Sockets at one address whose ports are two apart: that of the sound, and those at which its
/// error correction is heard. Ends the program when there are none.
[[nodiscard]] std::vector<UdpSocket> openUdpRow(const std::string& sAddress, int nSockets);

/// A dotted address for each UDP client, none of which a TCP client has.
[[nodiscard]] std::string sUdpClientAddress(int nClientNet, int nNumber);

/// Ends the program when the dotted address is none.
[[nodiscard]] sockaddr_in siMakeAddress(const std::string& sAddress, std::uint16_t nPort);

}  // namespace Load
