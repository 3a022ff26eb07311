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
/// encoding, or one that declares another encoding, counts as not well-formed. External entities
/// are never loaded.
///
/// The check keeps no tree. The text is too large if the check would need more than maxMemory
/// bytes, because elements nest too deeply or have too many different names, or a tag or comment is
/// too long. It is also too large if the check would take more than about a second, because
/// entities expand to too much text, or there are too many elements with many declared attributes.
/// This work is counted, not measured in time, so the verdict is the same on every machine.
///
/// @param error   if the text is not well-formed: line, column and reason
/// @param pPlace  the same in parts, or null; unchanged for every other verdict
/// @return POLICY_STORED for a good text; POLICY_NOT_WELL_FORMED; POLICY_TOO_LARGE; or
///         POLICY_NOT_STORED if the machine has no memory left
qor::EPolicyResult CheckPolicyXml(std::string_view text, std::string& error, std::size_t maxMemory,
                                  TSXmlPlace* pPlace = nullptr);

} // namespace tools

#endif
