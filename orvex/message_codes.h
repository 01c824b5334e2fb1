/// The codes of the protocol: message type, return code, request code and function.
///
/// Each is a value class over one signed number; -1 means unset or unknown. A message type travels
/// as the first byte of an image, the other three travel inside fields as their upper-case text.
/// Unknown texts and numbers are no errors: they read as -1 and are written as "INVALID", and the
/// receiver judges.
#pragma once

#include <string>
#include <string_view>

namespace Orvex {

/// The first byte of every message image.
class NetMessageType {
  public:
    constexpr NetMessageType() = default;
    constexpr explicit NetMessageType(long lType) : lValue(lType) {}
    /// Reads the first byte of `buf`, unsigned; 255 is the unset type. `len` is not consulted.
    NetMessageType(const char* buf, int len);

    /// Stores the low byte of the value at `chpOutNetMsgType` and 1 through `npOutNetMsgTypeLen`;
    /// either may be null.
    void ToChars(char* chpOutNetMsgType, int* npOutNetMsgTypeLen) const;
    [[nodiscard]] constexpr long ToLong() const { return lValue; }

    constexpr bool operator==(const NetMessageType& rOther) const {
        return lValue == rOther.lValue;
    }
    constexpr bool operator==(long lOther) const { return lValue == lOther; }

  private:
    long lValue = -1;
};

/// The result that a response carries:
///   0 OK, 1 NOT LOGGED IN, 2 UNAUTHORIZED, 3 NO CONTINUE, 4 UDP UNAUTHORIZED, 5 SERVICE2 OK, 6
///   SERVICE3 OK, 7 SERVICE4 OK, 8 REDIRECT, 9 SERVICE5 OK, 10 SERVICE6 OK
class ReturnCode {
  public:
    constexpr ReturnCode() = default;
    constexpr explicit ReturnCode(long lCode) : lValue(lCode) {}
    /// The whole text is compared, case-sensitively; anything else gives -1.
    explicit ReturnCode(const std::string& sText);

    void ToString(std::string& srOutText) const;
    /// The text as a view of static storage; "INVALID" for a number without text.
    [[nodiscard]] std::string_view ToString() const;
    [[nodiscard]] constexpr long ToLong() const { return lValue; }

    constexpr bool operator==(const ReturnCode& rOther) const { return lValue == rOther.lValue; }
    constexpr bool operator==(long lOther) const { return lValue == lOther; }

  private:
    long lValue = -1;
};

/// The verb of routing, ticket and connect orders: 0 CONNECT, 1 DISCONNECT, 2 UDP_REG.
class RequestCode {
  public:
    constexpr RequestCode() = default;
    constexpr explicit RequestCode(long lCode) : lValue(lCode) {}
    /// The whole text is compared, case-sensitively; anything else gives -1.
    explicit RequestCode(const std::string& sText);

    void ToString(std::string& srOutText) const;
    /// The text as a view of static storage; "INVALID" for a number without text.
    [[nodiscard]] std::string_view ToString() const;
    [[nodiscard]] constexpr int ToInt() const { return static_cast<int>(lValue); }
    [[nodiscard]] constexpr long ToLong() const { return lValue; }

    constexpr bool operator==(const RequestCode& rOther) const { return lValue == rOther.lValue; }
    constexpr bool operator==(long lOther) const { return lValue == lOther; }

  private:
    long lValue = -1;
};

/// The role a client logs in as: 1 ENCODE, 2 CAPTION, 4 MONITOR, 5 RELAY, 6 CONTINUE, 7 TEXTCAST (0
/// and 3 are not assigned).
class Function {
  public:
    constexpr Function() = default;
    constexpr explicit Function(long lCode) : lValue(lCode) {}
    /// The whole text is compared, case-sensitively; anything else gives -1.
    explicit Function(const std::string& sText);

    void ToString(std::string& srOutText) const;
    /// The text as a view of static storage; "INVALID" for a number without text.
    [[nodiscard]] std::string_view ToString() const;
    [[nodiscard]] constexpr long ToLong() const { return lValue; }

    constexpr bool operator==(const Function& rOther) const { return lValue == rOther.lValue; }
    constexpr bool operator==(long lOther) const { return lValue == lOther; }

  private:
    long lValue = -1;
};

}  // namespace Orvex
