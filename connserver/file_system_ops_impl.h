/// The file operations on the real file system.
#pragma once

#include "connserver/file_system_ops.h"

class FileSystemOpsImpl : public FileSystemOps {
  public:
    /// Also gives "./myfile" the mode 0700 first, whether or not there is such a file.
    int changeFileMode(const std::string& path, unsigned mode) override;
    /// See the base class.
    int moveFile(const std::string& from, const std::string& to) override;
    int makeTempFile(char* pszTemplate) override;
};
