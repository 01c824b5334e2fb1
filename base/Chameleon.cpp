#include "base/Chameleon.h"

#include <cstdlib>
#include <sstream>

Chameleon::Chameleon(double dNumber) {
    std::ostringstream out;
    out << dNumber;
    value_ = out.str();
}

Chameleon::operator double() const {
    return std::atof(value_.c_str());
}
