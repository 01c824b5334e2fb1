#include "orvex/relay_client_table.h"

#include <cassert>
#include <stdexcept>

namespace Orvex {

namespace {

constexpr std::size_t kByFileDesc = 0;
constexpr std::size_t kByClientID = 1;

/// Serial numbers are common to all tables and rising, so that they give the insertion order.
std::uint64_t nLastSerial = 0;

}  // namespace

/// A record's place among those with the same key in one index.
struct IndexLink {
    int nKey = 0;
    StoredClient* pPrev = nullptr;
    StoredClient* pNext = nullptr;
};

/// One record with its places in the table.
struct StoredClient {
    explicit StoredClient(RelayClientTable& owner) : table(owner) {}

    RelayClientTable& table;
    std::uint64_t nSerial = 0;
    StoredClient* pPrev = nullptr;
    StoredClient* pNext = nullptr;
    IndexLink links[2];
    RelayClient client;
};

ClientTableHook& ClientTableHook::operator=(const ClientTableHook& /*other*/) {
    keysChanged();  // the record around it was assigned to, id and descriptor included
    return *this;
}

void ClientTableHook::keysChanged() {
    if (pStored != nullptr) {
        pStored->table.reindex(*pStored);
    }
}

std::uint64_t ClientTableHook::nSerial() const {
    return pStored == nullptr ? 0 : pStored->nSerial;
}

StoredClient* ClientIndex::findFirst(int nKey) const {
    const auto itr = chains.find(nKey);
    return itr == chains.end() ? nullptr : itr->second.pFirst;
}

StoredClient* ClientIndex::nextEqual(const StoredClient& stored) const {
    return stored.links[nLink].pNext;
}

void ClientIndex::insert(StoredClient& stored, int nKey) {
    Chain& chain = chains[nKey];
    StoredClient* pAfter = chain.pLast;
    while (pAfter != nullptr && pAfter->nSerial > stored.nSerial) {
        pAfter = pAfter->links[nLink].pPrev;
    }
    StoredClient* pBefore = pAfter == nullptr ? chain.pFirst : pAfter->links[nLink].pNext;
    stored.links[nLink] = {nKey, pAfter, pBefore};
    (pAfter == nullptr ? chain.pFirst : pAfter->links[nLink].pNext) = &stored;
    (pBefore == nullptr ? chain.pLast : pBefore->links[nLink].pPrev) = &stored;
}

void ClientIndex::remove(StoredClient& stored) {
    const IndexLink& link = stored.links[nLink];
    const auto itr = chains.find(link.nKey);
    assert(itr != chains.end() && "a stored record is always indexed");
    Chain& chain = itr->second;
    (link.pPrev == nullptr ? chain.pFirst : link.pPrev->links[nLink].pNext) = link.pNext;
    (link.pNext == nullptr ? chain.pLast : link.pNext->links[nLink].pPrev) = link.pPrev;
    if (chain.pFirst == nullptr) {
        chains.erase(itr);
    }
}

void ClientIndex::rekey(StoredClient& stored, int nKey) {
    if (stored.links[nLink].nKey != nKey) {
        remove(stored);
        insert(stored, nKey);
    }
}

RelayClientTable::Walk::Walk(RelayClientTable& walkedTable)
    : table(walkedTable), pNextWalk(walkedTable.pWalks) {
    if (pNextWalk != nullptr) {
        pNextWalk->pPrevWalk = this;
    }
    table.pWalks = this;
}

RelayClientTable::Walk::~Walk() {
    (pPrevWalk == nullptr ? table.pWalks : pPrevWalk->pNextWalk) = pNextWalk;
    if (pNextWalk != nullptr) {
        pNextWalk->pPrevWalk = pPrevWalk;
    }
}

bool RelayClientTable::Walk::bBeginTraverse() {
    if (table.pFirst == nullptr) {
        return false;
    }
    _currItr = table.pFirst;
    _bDeleteFlag = false;
    return true;
}

RelayClient& RelayClientTable::Walk::current() const {
    if (_currItr == nullptr) {
        throw std::out_of_range("no clients left in this iteration of Tessel RelayClientTable!\n");
    }
    return _currItr->client;
}

bool RelayClientTable::Walk::bContinueTraverse() {
    if (_currItr == nullptr) {
        return false;
    }
    if (_bDeleteFlag) {
        _bDeleteFlag = false;
    } else {
        _currItr = _currItr->pNext;
    }
    return _currItr != nullptr;
}

/// A cursor past the last record is where the new record goes.
void RelayClientTable::Walk::onAdded(StoredClient& added) {
    if (_currItr == nullptr) {
        _currItr = &added;
    }
}

/// The cursor steps back from the deleted record, so that continuing reaches the one after it; from
/// the first record it moves to the second, and continuing then stays there.
void RelayClientTable::Walk::onDeleting(const StoredClient& deleted) {
    if (_currItr != &deleted) {
        return;
    }
    if (deleted.pPrev != nullptr) {
        _currItr = deleted.pPrev;
    } else {
        _currItr = deleted.pNext;
        _bDeleteFlag = true;
    }
}

RelayClientTable::RelayClientTable()
    : byFileDesc(kByFileDesc), byClientID(kByClientID), ownWalk(*this) {}

RelayClientTable::~RelayClientTable() {
    assert(pWalks == &ownWalk && ownWalk.pNextWalk == nullptr && "a table outlives its walks");
    while (pFirst != nullptr) {
        StoredClient* pGone = pFirst;
        pFirst = pGone->pNext;
        delete pGone;
    }
}

RelayClient& RelayClientTable::Add(const RelayClient& client) {
    auto* pStored = new StoredClient(*this);
    pStored->client = client;
    pStored->client.hook.pStored = pStored;
    pStored->nSerial = ++nLastSerial;
    pStored->pPrev = pLast;
    (pLast == nullptr ? pFirst : pLast->pNext) = pStored;
    pLast = pStored;
    ++nSize;
    ++nVersion;
    byFileDesc.insert(*pStored, client.msMessageSocket.getMsgSockFileDesc());
    byClientID.insert(*pStored, client.nClientID);
    for (Walk* pWalk = pWalks; pWalk != nullptr; pWalk = pWalk->pNextWalk) {
        pWalk->onAdded(*pStored);
    }
    return pStored->client;
}

RelayClient* RelayClientTable::find(int nClientID) const {
    StoredClient* pFound = byClientID.findFirst(nClientID);
    return pFound == nullptr ? nullptr : &pFound->client;
}

bool RelayClientTable::bLookUp(int nClientID, RelayClient** out) const {
    RelayClient* const pFound = find(nClientID);
    if (pFound == nullptr) {
        return false;
    }
    *out = pFound;
    return true;
}

bool RelayClientTable::bFileDescLookUp(int fd, RelayClient** out) const {
    StoredClient* pFound = byFileDesc.findFirst(fd);
    if (pFound == nullptr) {
        return false;
    }
    *out = &pFound->client;
    return true;
}

int RelayClientTable::getFileDescFromID(int nClientID) const {
    const StoredClient* pFound = byClientID.findFirst(nClientID);
    return pFound == nullptr ? -1 : pFound->client.msMessageSocket.getMsgSockFileDesc();
}

RelayClient* RelayClientTable::findBySerial(int fd, std::uint64_t nSerial) const {
    StoredClient* pFound = byFileDesc.findFirst(fd);
    while (pFound != nullptr && pFound->nSerial != nSerial) {
        pFound = byFileDesc.nextEqual(*pFound);
    }
    return pFound == nullptr ? nullptr : &pFound->client;
}

bool RelayClientTable::bDelete(int fd) {
    StoredClient* pFound = byFileDesc.findFirst(fd);
    if (pFound == nullptr) {
        return false;
    }
    erase(*pFound);
    return true;
}

bool RelayClientTable::bDelete(RelayClient& client) {
    return bDelete(client.msMessageSocket.getMsgSockFileDesc());
}

void RelayClientTable::reindex(StoredClient& stored) {
    ++nVersion;
    byFileDesc.rekey(stored, stored.client.msMessageSocket.getMsgSockFileDesc());
    byClientID.rekey(stored, stored.client.nClientID);
}

void RelayClientTable::erase(StoredClient& stored) {
    for (Walk* pWalk = pWalks; pWalk != nullptr; pWalk = pWalk->pNextWalk) {
        pWalk->onDeleting(stored);
    }
    byFileDesc.remove(stored);
    byClientID.remove(stored);
    (stored.pPrev == nullptr ? pFirst : stored.pPrev->pNext) = stored.pNext;
    (stored.pNext == nullptr ? pLast : stored.pNext->pPrev) = stored.pPrev;
    --nSize;
    ++nVersion;
    delete &stored;
}

}  // namespace Orvex
