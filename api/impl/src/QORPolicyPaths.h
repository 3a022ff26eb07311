// The path of the installed policy.
#ifndef QOR_QORPOLICYPATHS_H
#define QOR_QORPOLICYPATHS_H

namespace qor
{

constexpr char DEFAULT_POLICY_PATH[] = "/opt/usr/share/vantorix/";
constexpr char DEFAULT_POLICY_XML_PATH[] = "/opt/usr/share/vantorix/velkin_qor_policy.xml";

} // namespace qor

#endif
