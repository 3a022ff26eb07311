// Says whether a policy text is well-formed XML.
#ifndef TOOLS_COMMON_POLICYXML_H
#define TOOLS_COMMON_POLICYXML_H

#include <cstddef>
#include <string>
#include <string_view>

#include <qor/PolicyMessage.h>

namespace tools
{

/// How large a policy the service takes by default, in bytes.
constexpr std::size_t MAX_POLICY_SIZE = std::size_t{16} * 1024 * 1024;

/// How much memory the service allows the check of one policy, beside the message itself, of which
/// GDBus and the endpoint hold three copies: a policy of that size then takes the service less than
/// four times as much.
constexpr std::size_t POLICY_CHECK_MEMORY = std::size_t{4} * 1024 * 1024;

/// Counted from 1; columns are characters, not bytes.
struct TSXmlPlace
{
    std::size_t m_line = 0;
    std::size_t m_column = 0;
    std::string m_reason;
};

/// Whether the text is a well-formed XML document. Policies are UTF-8: a document in another
/// encoding, or one that says so, is not well-formed here. What a document type names outside the
/// document is never fetched.
///
/// The check keeps no tree. Where it would need more than maxMemory bytes, because elements nest
/// too deeply, have too many different names, or too much stands in one of them, the text is too
/// large. So it is where the check would take more than about a second, because entities expand to
/// too much, or elements for which many attributes are declared stand there too often: that work is
/// counted, and no time measured, so that the verdict is the same on every machine.
///
/// @param error   where it is not well-formed: line, column and reason
/// @param pPlace  the same in parts, where wanted; untouched for every other verdict
/// @return POLICY_STORED for a good one, or POLICY_NOT_WELL_FORMED, POLICY_TOO_LARGE, or
///         POLICY_NOT_STORED where the machine has no memory left
qor::EPolicyResult CheckPolicyXml(std::string_view text, std::string& error, std::size_t maxMemory,
                                  TSXmlPlace* pPlace = nullptr);

} // namespace tools

#endif
