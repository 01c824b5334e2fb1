/// Connected peers in insertion order, found in constant time by descriptor or by client id,
/// however many there are and however many share an id.
///
/// The descriptor is the key for deletion; if several records share a descriptor or an id, the
/// first in insertion order is meant. A record never moves: pointers and references to it stay
/// valid until that record is deleted. A failed send to a client deletes its record: look up again
/// after anything that may send to it. Main thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>

#include "orvex/relay_client.h"

namespace Orvex {

/// The result of one look-up by id, for callers that look up the same id repeatedly: one for each
/// table and id. Used only by `RelayClientTable::findAgain`.
struct FoundClient {
    std::uint64_t nVersion = 0;
    RelayClient* pClient = nullptr;
};

/// One of the two indexes of a table: records of equal key, chained in insertion order.
class ClientIndex {
  public:
    /// `nWhich`, 0 or 1, says which of a record's links belongs to this index.
    explicit ClientIndex(std::size_t nWhich) : nLink(nWhich) {}

    /// The oldest record with that key, or null.
    [[nodiscard]] StoredClient* findFirst(int nKey) const;
    /// The next record after `stored` with the same key, or null.
    [[nodiscard]] StoredClient* nextEqual(const StoredClient& stored) const;
    /// Adds `stored` under `nKey`, in constant time if it is the newest with that key; otherwise
    /// the newer ones are passed first.
    void insert(StoredClient& stored, int nKey);
    /// Removes `stored`, which must be in the index.
    void remove(StoredClient& stored);
    /// Moves `stored` to `nKey`, unless it already has that key.
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
    ///     if (walk.bBeginTraverse()) {
    ///         do { ... walk.current() ... } while (walk.bContinueTraverse());
    ///     }
    /// Walks of one table are independent of each other, and records may be added and deleted
    /// during any of them: none is visited twice or skipped. The table must outlive the walk.
    class Walk {
      public:
        /// A walk over `walkedTable` that has not begun.
        explicit Walk(RelayClientTable& walkedTable);
        ~Walk();
        Walk(const Walk&) = delete;
        Walk& operator=(const Walk&) = delete;

        /// Moves to the first record; false on an empty table.
        [[nodiscard]] bool bBeginTraverse();
        /// The record at the cursor. Throws `std::out_of_range` on an empty table or past the last
        /// record. After the current record was deleted this is a neighbour: continue first.
        [[nodiscard]] RelayClient& current() const;
        /// Moves to the next record; false when there is none.
        [[nodiscard]] bool bContinueTraverse();

      private:
        friend class RelayClientTable;
        void onAdded(StoredClient& added);
        void onDeleting(const StoredClient& deleted);

        RelayClientTable& table;
        StoredClient* _currItr = nullptr;  ///< null: past the last record
        bool _bDeleteFlag = false;         ///< the first record was deleted: stay on its successor
        Walk* pPrevWalk = nullptr;
        Walk* pNextWalk = nullptr;
    };

    /// An empty table.
    RelayClientTable();
    /// Deletes all records. No walk may exist any more.
    ~RelayClientTable();
    RelayClientTable(const RelayClientTable&) = delete;
    RelayClientTable& operator=(const RelayClientTable&) = delete;

    /// The number of records.
    [[nodiscard]] int GetSize() const { return nSize; }

    /// Appends a copy of `client` and returns the stored record, which has a new serial number.
    RelayClient& Add(const RelayClient& client);

    /// Stores the first record with that client id in `*out`; false, with `*out` unchanged, when
    /// there is none.
    [[nodiscard]] bool bLookUp(int nClientID, RelayClient** out) const;
    /// The same as a pointer, null when there is none. Looks up only if a record was added, deleted
    /// or given another key since `rFound` was filled.
    [[nodiscard]] RelayClient* findAgain(int nClientID, FoundClient& rFound) const {
        if (rFound.nVersion != nVersion) {
            rFound = {nVersion, find(nClientID)};
        }
        return rFound.pClient;
    }
    /// Stores the first record with that descriptor in `*out`; false, with `*out` unchanged, when
    /// there is none.
    [[nodiscard]] bool bFileDescLookUp(int fd, RelayClient** out) const;
    /// The descriptor of the first record with that client id, or -1.
    [[nodiscard]] int getFileDescFromID(int nClientID) const;
    /// The record with that descriptor and serial number, or null if it has been deleted.
    [[nodiscard]] RelayClient* findBySerial(int fd, std::uint64_t nSerial) const;

    /// Deletes the first record with that descriptor; false when there is none. Closes nothing.
    bool bDelete(int fd);
    /// The same with the descriptor of `client`, which is invalid afterwards if it was that record.
    bool bDelete(RelayClient& client);

    /// One walk that the table provides; use a `Walk` where another may be in progress.
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
    std::uint64_t nVersion = 1;  ///< incremented whenever the result of a look-up may change
    Walk* pWalks = nullptr;      ///< all existing walks, including `ownWalk`
    Walk ownWalk;
};

}  // namespace Orvex
