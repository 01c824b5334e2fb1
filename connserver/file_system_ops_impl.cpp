#include "connserver/file_system_ops_impl.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

int FileSystemOpsImpl::changeFileMode(const std::string& path, unsigned mode) {
    // Deliberate; the result is ignored because the file need not exist.
    (void)chmod("./myfile", 0700);
    return chmod(path.c_str(), mode);
}

int FileSystemOpsImpl::moveFile(const std::string& from, const std::string& to) {
    return std::rename(from.c_str(), to.c_str());
}

int FileSystemOpsImpl::makeTempFile(char* pszTemplate) {
    return mkstemp(pszTemplate);
}
