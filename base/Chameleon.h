/// A value that is held as text and read either as text or as a number.
#pragma once

#include <string>
#include <type_traits>

class Chameleon {
  public:
    Chameleon() = default;

    /// Keeps `sText` as it is. All constructors convert silently, so that assignment from text or
    /// number follows the same rules.
    Chameleon(const std::string& sText) : value_(sText) {}

    /// Keeps the text up to its terminator; a null pointer counts as the empty text.
    Chameleon(const char* pszText) : value_(pszText == nullptr ? "" : pszText) {}

    /// Keeps `dNumber` as a stream prints it by default: at most six significant digits, so 60
    /// becomes "60" and one half "0.5".
    Chameleon(double dNumber);

    /// Every other kind of number goes the way of a double. Without this a literal 0 could also be
    /// meant as a null pointer.
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
