/// A user as login-related messages describe one, carried as one binary field:
///   0  u32   cID, little-endian
///   4  u32   flags, little-endian
///   8        company ";" username ";" reserved
/// Nothing is escaped here: a company or user name that contains ";" is split there when it is
/// read. Each object is for one thread at a time.
#pragma once

#include <string>

namespace Orvex {

class UserInfo {
  public:
    static constexpr char delim = 59;  ///< ";"

    /// All zero and empty.
    UserInfo() = default;
    /// `reserved` is empty.
    UserInfo(int nID, const std::string& sCompany, const std::string& sUsername, int nFlags);

    // What the bits of `flags` say.

    [[nodiscard]] bool IsEncoder() const { return (flags & 0x0001) != 0; }
    [[nodiscard]] bool IsPrimaryEncoder() const { return (flags & 0x0002) != 0; }
    [[nodiscard]] bool IsActiveCaptioner() const { return (flags & 0x0004) != 0; }
    [[nodiscard]] bool IsDestinationWaiting() const { return (flags & 0x0800) != 0; }
    [[nodiscard]] bool IsDestinationOffline() const { return (flags & 0x8000) != 0; }

    /// The field's bytes, before escaping.
    [[nodiscard]] std::string GetNetMsgField() const;
    /// The inverse, for the bytes of an unescaped field. A field of 8 bytes or fewer changes
    /// nothing; one without the first or the second ";" leaves the strings from there on unchanged.
    void SetFromNetMsgField(const std::string& sField);

    int flags = 0;  ///< the bits above; others are carried unchanged
    int cID = 0;    ///< user id
    std::string company;
    std::string username;
    std::string reserved;  ///< may contain ";"
};

}  // namespace Orvex
