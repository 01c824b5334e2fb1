/// The file operations that the redundancy writer needs, as an interface that tests can replace.
#pragma once

#include <string>

class FileSystemOps {
  public:
    virtual ~FileSystemOps() = default;

    /// Sets the permission bits of `path`. 0 on success.
    virtual int changeFileMode(const std::string& path, unsigned mode);

    /// Renames a file. 0 on success.
    virtual int moveFile(const std::string& from, const std::string& to);

    /// Creates and opens a new file, replacing the X's at the end of `pszTemplate` by its name. The
    /// descriptor, or -1.
    virtual int makeTempFile(char* pszTemplate);

    /// True makes the redundancy writer work in simple logging as well.
    virtual bool testingRedundancy();
};
