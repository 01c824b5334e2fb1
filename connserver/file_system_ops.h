/// The file operations that the redundancy writer needs, as an interface that tests can replace.
/// These do nothing; FileSystemOpsImpl works on the real file system. Called from the writer's
/// thread.
#pragma once

#include <string>

class FileSystemOps {
  public:
    virtual ~FileSystemOps() = default;

    /// Sets the permission bits of `path` to `mode`. 0 on success, -1 with errno set on failure.
    virtual int changeFileMode(const std::string& path, unsigned mode);

    /// Renames the file `from` to `to`. 0 on success, -1 with errno set on failure.
    virtual int moveFile(const std::string& from, const std::string& to);

    /// Creates and opens a new file, replacing the six X's at the end of `pszTemplate` to give its
    /// name. Returns the descriptor, which the caller closes, or -1 with errno set.
    virtual int makeTempFile(char* pszTemplate);

    /// Whether the redundancy writer works in simple logging as well.
    virtual bool testingRedundancy();
};
