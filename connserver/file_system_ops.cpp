#include "connserver/file_system_ops.h"

int FileSystemOps::changeFileMode(const std::string&, unsigned) {
    return 0;
}

int FileSystemOps::moveFile(const std::string&, const std::string&) {
    return 0;
}

int FileSystemOps::makeTempFile(char*) {
    return 0;
}

bool FileSystemOps::testingRedundancy() {
    return false;
}
