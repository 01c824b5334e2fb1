/// A folder that lives as long as the object.
#pragma once

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

class TempFolder {
  public:
    TempFolder() {
        std::string sTemplate = (std::filesystem::temp_directory_path() / "relayXXXXXX").string();
        if (mkdtemp(sTemplate.data()) == nullptr) {
            throw std::runtime_error("no temporary folder");
        }
        _path = sTemplate;
    }
    ~TempFolder() { std::filesystem::remove_all(_path); }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    /// The path of the file `sName` in it.
    [[nodiscard]] std::string sFile(const std::string& sName) const {
        return (_path / sName).string();
    }
    /// Writes a file and returns its path.
    std::string sWrite(const std::string& sName, const std::string& sText) const {
        std::ofstream(sFile(sName), std::ios::binary) << sText;
        return sFile(sName);
    }
    [[nodiscard]] std::string sPath() const { return _path.string(); }

  private:
    std::filesystem::path _path;
};
