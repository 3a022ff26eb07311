// What the parts of the soak share.
#ifndef QORSOAK_SOAK_H
#define QORSOAK_SOAK_H

#include <string>

namespace qorsoak
{

/// Ends the soak with status 1, saying which property does not hold.
void Require(bool holds, const char* property, const std::string& details = "");

} // namespace qorsoak

#endif
