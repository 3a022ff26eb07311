// Says whether a policy text is well-formed XML.
#ifndef QORD_POLICYXML_H
#define QORD_POLICYXML_H

#include <string>

namespace qord
{

/// Whether the text is a well-formed XML document with exactly one document element. Policies are
/// UTF-8; another encoding is not well-formed here. A document type declaration is skipped: nothing
/// that it names is loaded or expanded. The depth and breadth of a document are limited by memory
/// alone, not by the stack.
///
/// @return false, with the reason and the place where it is known in error
bool IsWellFormedPolicy(const std::string& text, std::string& error);

} // namespace qord

#endif
