/// Captions of 200 bytes from one client to others.
#pragma once

#include <string>
#include <vector>

#include "bench/instructions/message_kind.h"

class Caption final : public MessageKind {
  public:
    explicit Caption(int nReceivers);

    void send(int nMessages) override;
    [[nodiscard]] bool bAllReceived(int nMessages) override;

  private:
    std::string sFrame;
    int fdSource;
    std::vector<int> receivers;
};
