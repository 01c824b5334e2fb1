/// A table of records with made-up descriptors and ids, for tests.
#pragma once

#include <gtest/gtest.h>

#include <vector>

#include "orvex/relay_client_table.h"

using Orvex::RelayClient;
using Orvex::RelayClientTable;
using Orvex::RelayMessageSocket;

using Fds = std::vector<int>;

inline RelayClient clientWith(int fd, int nID = 0) {
    RelayClient client{RelayMessageSocket(fd, sockaddr_in{})};
    client.SetClientID(nID);
    return client;
}

inline int fdOf(const RelayClient& client) {
    return client.GetMessageSocket()->getMsgSockFileDesc();
}

/// The descriptors that a whole walk meets.
inline Fds vWalked(RelayClientTable& table) {
    Fds vFds;
    RelayClientTable::Walk walk(table);
    if (walk.bBeginTraverse()) {
        do {
            vFds.push_back(fdOf(walk.current()));
        } while (walk.bContinueTraverse());
    }
    return vFds;
}

class RelayClientTableTest : public testing::Test {
  protected:
    /// Adds `nCount` records with the descriptors 10, 11, ... and ids a hundred times as large.
    void addClients(int nCount) {
        for (int fd = 10; fd < 10 + nCount; ++fd) {
            table.Add(clientWith(fd, fd * 100));
        }
    }
    [[nodiscard]] RelayClient* byID(int nID) const {
        RelayClient* pFound = nullptr;
        return table.bLookUp(nID, &pFound) ? pFound : nullptr;
    }
    [[nodiscard]] RelayClient* byFd(int fd) const {
        RelayClient* pFound = nullptr;
        return table.bFileDescLookUp(fd, &pFound) ? pFound : nullptr;
    }
    RelayClientTable table;
};
