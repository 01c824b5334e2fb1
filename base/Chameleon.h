/// A value that is held as text and read either as text or as a number. Each object is for one
/// thread at a time.
#pragma once

#include <string>
#include <type_traits>

class Chameleon {
  public:
    /// The empty text.
    Chameleon() = default;

    /// Keeps `sText` as it is. All constructors convert implicitly, so that assignment from text or
    /// number follows the same rules.
    Chameleon(const std::string& sText) : value_(sText) {}

    /// Keeps the text up to its terminator; a null pointer counts as the empty text.
    Chameleon(const char* pszText) : value_(pszText == nullptr ? "" : pszText) {}

    /// Keeps `dNumber` as a stream prints it by default: at most six significant digits, so 60
    /// becomes "60" and one half "0.5".
    Chameleon(double dNumber);

    /// Any other number is converted to a double first. Without this overload a literal 0 would be
    /// ambiguous: it could also be a null pointer.
    template <typename Number>
    requires std::is_arithmetic_v<Number> Chameleon(Number number)
        : Chameleon(static_cast<double>(number)) {}

    /// The text as it was given.
    operator std::string() const { return value_; }

    /// The number at the beginning of the text as `atof` reads it: 12 for "12abc", 0 for a text
    /// that does not begin with a number. May be huge, infinite or not a number; see
    /// number_range.h.
    operator double() const;

  private:
    std::string value_;
};
