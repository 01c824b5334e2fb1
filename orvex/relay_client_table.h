/// Connected peers in the order in which they were added, found in constant time by descriptor or
/// by client id, however many there are and however many share an id.
///
/// The descriptor is the key for deletion; where several records share a descriptor or an id, the
/// first in insertion order is meant. A record never moves: pointers and references to it stay
/// good until that very record is deleted. A failed send to a client deletes its record: look up
/// again after anything that may send to it. Event-loop thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>

#include "orvex/relay_client.h"

namespace Orvex {

/// What one look-up by id found, for whoever asks for the same id again and again: one for each
/// table and id. Only `RelayClientTable::findAgain` looks inside.
struct FoundClient {
    std::uint64_t nVersion = 0;
    RelayClient* pClient = nullptr;
};

/// Records of equal key, chained in insertion order; one of the two indexes of a table.
class ClientIndex {
  public:
    /// `nWhich` says which of a record's links belongs to this index.
    explicit ClientIndex(std::size_t nWhich) : nLink(nWhich) {}

    /// The oldest record with that key, or null.
    [[nodiscard]] StoredClient* findFirst(int nKey) const;
    /// The record behind `stored` among those with the same key, or null.
    [[nodiscard]] StoredClient* nextEqual(const StoredClient& stored) const;
    /// Constant time for the newest of its key; an older one walks back over the newer ones.
    void insert(StoredClient& stored, int nKey);
    void remove(StoredClient& stored);
    /// Moves `stored` to another key, unless it has it already.
    void rekey(StoredClient& stored, int nKey);

  private:
    struct Chain {
        StoredClient* pFirst = nullptr;
        StoredClient* pLast = nullptr;
    };
    std::unordered_map<int, Chain> chains;
    std::size_t nLink;
};

class RelayClientTable {
  public:
    /// One pass over a table's records:
    ///     RelayClientTable::Walk walk(table);
    ///     if (walk.bBeginTraverse()) do { ... walk.current() ... } while
    ///     (walk.bContinueTraverse());
    /// Walks of one table do not disturb each other, and records may be added and deleted during
    /// any of them: none is visited twice or skipped. The table must outlive the walk.
    class Walk {
      public:
        explicit Walk(RelayClientTable& walkedTable);
        ~Walk();
        Walk(const Walk&) = delete;
        Walk& operator=(const Walk&) = delete;

        /// Goes to the first record; false on an empty table.
        [[nodiscard]] bool bBeginTraverse();
        /// The record under the cursor. Throws `std::out_of_range` on an empty table or past the
        /// last record. After the current record was deleted this is a neighbour: go on first.
        [[nodiscard]] RelayClient& current() const;
        /// Goes on to the record that follows; false when there is none.
        [[nodiscard]] bool bContinueTraverse();

      private:
        friend class RelayClientTable;
        void onAdded(StoredClient& added);
        void onDeleting(const StoredClient& deleted);

        RelayClientTable& table;
        StoredClient* _currItr = nullptr;  ///< null: behind the last record
        bool _bDeleteFlag = false;         ///< the first record went: stay on its successor
        Walk* pPrevWalk = nullptr;
        Walk* pNextWalk = nullptr;
    };

    RelayClientTable();
    ~RelayClientTable();
    RelayClientTable(const RelayClientTable&) = delete;
    RelayClientTable& operator=(const RelayClientTable&) = delete;

    /// Number of records.
    [[nodiscard]] int GetSize() const { return nSize; }

    /// Appends a copy of `client` and returns the stored record.
    RelayClient& Add(const RelayClient& client);

    /// The first record with that client id; false, and `*out` untouched, when there is none.
    [[nodiscard]] bool bLookUp(int nClientID, RelayClient** out) const;
    /// The same as a pointer, null when there is none. Looks up only if a record came, went or got
    /// another key since `rFound` was filled.
    [[nodiscard]] RelayClient* findAgain(int nClientID, FoundClient& rFound) const {
        if (rFound.nVersion != nVersion) {
            rFound = {nVersion, find(nClientID)};
        }
        return rFound.pClient;
    }
    /// The first record with that descriptor; false, and `*out` untouched, when there is none.
    [[nodiscard]] bool bFileDescLookUp(int fd, RelayClient** out) const;
    /// The descriptor of the first record with that client id, or -1.
    [[nodiscard]] int getFileDescFromID(int nClientID) const;
    /// The record with that descriptor and that serial number, or null when it is gone.
    [[nodiscard]] RelayClient* findBySerial(int fd, std::uint64_t nSerial) const;

    /// Removes the first record with that descriptor; false when there is none. Closes nothing.
    bool bDelete(int fd);
    /// Removes by the descriptor of `client`, which is dead afterwards if it was the stored one.
    bool bDelete(RelayClient& client);

    /// The table's own walk; use a `Walk` where another may be under way.
    [[nodiscard]] bool bBeginTraverse() { return ownWalk.bBeginTraverse(); }
    [[nodiscard]] RelayClient& current() const { return ownWalk.current(); }
    [[nodiscard]] bool bContinueTraverse() { return ownWalk.bContinueTraverse(); }

  private:
    friend class ClientTableHook;
    [[nodiscard]] RelayClient* find(int nClientID) const;
    void reindex(StoredClient& stored);
    void erase(StoredClient& stored);

    ClientIndex byFileDesc;
    ClientIndex byClientID;
    StoredClient* pFirst = nullptr;
    StoredClient* pLast = nullptr;
    int nSize = 0;
    std::uint64_t nVersion = 1;  ///< rises whenever a look-up may give something else than before
    Walk* pWalks = nullptr;      ///< every walk alive, the table's own included
    Walk ownWalk;
};

}  // namespace Orvex
