/// Datagrams of 200 bytes of audio from one client to others.
#pragma once

#include <string>
#include <vector>

#include "bench/instructions/message_kind.h"

class Datagram final : public MessageKind {
  public:
    explicit Datagram(int nReceivers);

    void send(int nMessages) override;
    [[nodiscard]] bool bAllReceived(int nMessages) override;

  private:
    std::string sBytes;
    int fdSource;
    std::vector<int> receivers;
};
