/// The codes of the protocol: message type, return code, request code and function.
///
/// Each is a value class over one signed number; -1 means unset or unknown. A message type travels
/// as the first byte of an image, the other three travel inside fields as their upper-case text.
/// Unknown texts and numbers are not errors: they are read as -1 and written as "INVALID", and the
/// receiver decides what to do. Each object is for one thread at a time.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace Orvex {

/// A code and its text on the wire.
struct code_text_t {
    long lValue;
    std::string_view sText;
};

// REDIRECT is between the service texts because the protocol fixes the numbers.
inline constexpr code_text_t kReturnCodes[] = {
    {0, "OK"},          {1, "NOT LOGGED IN"},    {2, "UNAUTHORIZED"},
    {3, "NO CONTINUE"}, {4, "UDP UNAUTHORIZED"}, {5, "SERVICE2 OK"},
    {6, "SERVICE3 OK"}, {7, "SERVICE4 OK"},      {8, "REDIRECT"},
    {9, "SERVICE5 OK"}, {10, "SERVICE6 OK"},
};

inline constexpr code_text_t kRequestCodes[] = {{0, "CONNECT"}, {1, "DISCONNECT"}, {2, "UDP_REG"}};

// 0 and 3 are not assigned.
inline constexpr code_text_t kFunctions[] = {
    {1, "ENCODE"}, {2, "CAPTION"}, {4, "MONITOR"}, {5, "RELAY"}, {6, "CONTINUE"}, {7, "TEXTCAST"},
};

/// The value of a text of `codes`, at compile time; any other text does not compile.
consteval long lKnownCode(std::span<const code_text_t> codes, std::string_view sText) {
    for (const code_text_t& rCode : codes) {
        if (rCode.sText == sText) {
            return rCode.lValue;
        }
    }
    throw "no such code";
}

/// The first byte of every message image.
class NetMessageType {
  public:
    /// Unset.
    constexpr NetMessageType() = default;
    constexpr explicit NetMessageType(long lType) : lValue(lType) {}
    /// Reads the first byte of `buf`, unsigned; 255 is the unset type. `len` is not consulted.
    NetMessageType(const char* buf, int len);

    /// Stores the low byte of the value at `chpOutNetMsgType` and 1 through `npOutNetMsgTypeLen`;
    /// either may be null.
    void ToChars(char* chpOutNetMsgType, int* npOutNetMsgTypeLen) const;
    /// The number, -1 when unset.
    [[nodiscard]] constexpr long ToLong() const { return lValue; }

    constexpr bool operator==(const NetMessageType& rOther) const {
        return lValue == rOther.lValue;
    }
    constexpr bool operator==(long lOther) const { return lValue == lOther; }

  private:
    long lValue = -1;
};

/// The result that a response carries, one of `kReturnCodes`.
class ReturnCode {
  public:
    /// Unset.
    constexpr ReturnCode() = default;
    constexpr explicit ReturnCode(long lCode) : lValue(lCode) {}
    /// The whole text is compared, case-sensitively; anything else gives -1.
    explicit ReturnCode(const std::string& sText);
    /// For constants: the code with that text; a text that is none does not compile.
    static consteval ReturnCode of(std::string_view sText) {
        return ReturnCode(lKnownCode(kReturnCodes, sText));
    }

    /// Stores the text in `srOutText`; "INVALID" for a number without text.
    void ToString(std::string& srOutText) const;
    /// The text as a view of static storage; "INVALID" for a number without text.
    [[nodiscard]] std::string_view ToString() const;
    /// The number, -1 when unset or unknown.
    [[nodiscard]] constexpr long ToLong() const { return lValue; }

    constexpr bool operator==(const ReturnCode& rOther) const { return lValue == rOther.lValue; }
    constexpr bool operator==(long lOther) const { return lValue == lOther; }

  private:
    long lValue = -1;
};

/// The verb of routing, ticket and connect orders, one of `kRequestCodes`.
class RequestCode {
  public:
    /// Unset.
    constexpr RequestCode() = default;
    constexpr explicit RequestCode(long lCode) : lValue(lCode) {}
    /// The whole text is compared, case-sensitively; anything else gives -1.
    explicit RequestCode(const std::string& sText);
    /// For constants: the code with that text; a text that is none does not compile.
    static consteval RequestCode of(std::string_view sText) {
        return RequestCode(lKnownCode(kRequestCodes, sText));
    }

    /// Stores the text in `srOutText`; "INVALID" for a number without text.
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

/// The role a client logs in as, one of `kFunctions`.
class Function {
  public:
    /// Unset.
    constexpr Function() = default;
    constexpr explicit Function(long lCode) : lValue(lCode) {}
    /// The whole text is compared, case-sensitively; anything else gives -1.
    explicit Function(const std::string& sText);
    /// For constants: the code with that text; a text that is none does not compile.
    static consteval Function of(std::string_view sText) {
        return Function(lKnownCode(kFunctions, sText));
    }

    /// Stores the text in `srOutText`; "INVALID" for a number without text.
    void ToString(std::string& srOutText) const;
    /// The text as a view of static storage; "INVALID" for a number without text.
    [[nodiscard]] std::string_view ToString() const;
    /// The number, -1 when unset or unknown.
    [[nodiscard]] constexpr long ToLong() const { return lValue; }

    constexpr bool operator==(const Function& rOther) const { return lValue == rOther.lValue; }
    constexpr bool operator==(long lOther) const { return lValue == lOther; }

  private:
    long lValue = -1;
};

}  // namespace Orvex
