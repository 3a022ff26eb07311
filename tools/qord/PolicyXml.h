// Says whether a policy text is well-formed XML.
#ifndef QORD_POLICYXML_H
#define QORD_POLICYXML_H

#include <cstddef>
#include <string>
#include <string_view>

#include <qor/PolicyMessage.h>

namespace qord
{

/// Whether the text is a well-formed XML document. Policies are UTF-8: a document in another
/// encoding, or one that says so, is not well-formed here. What a document type names outside the
/// document is never fetched; entities that multiply without end are refused.
///
/// The check keeps no tree. Where it would need more than maxMemory bytes, because elements nest
/// too deeply, have too many different names, or too much stands in one of them, the text is too
/// large.
///
/// @param error  where it is not well-formed: line, column and reason
/// @return POLICY_STORED for a good one, or POLICY_NOT_WELL_FORMED, POLICY_TOO_LARGE, or
///         POLICY_NOT_STORED where the machine has no memory left
qor::EPolicyResult CheckPolicyXml(std::string_view text, std::string& error, std::size_t maxMemory);

} // namespace qord

#endif
