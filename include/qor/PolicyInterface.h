// The names of the interface that qord has for everybody, whatever their language.
#ifndef QOR_POLICYINTERFACE_H
#define QOR_POLICYINTERFACE_H

namespace qor
{

/// The second interface on the service's object. com.norvane.qor.Policy1.xml, which is installed
/// among the system's D-Bus interfaces, describes it.
constexpr char POLICY_INTERFACE[] = "com.norvane.qor.Policy1";

// The names of its errors.

/// The text is not well-formed XML; the words say where.
constexpr char ERROR_NOT_WELL_FORMED[] = "com.norvane.qor.Error.NotWellFormed";
/// The caller may not do that.
constexpr char ERROR_NOT_PERMITTED[] = "com.norvane.qor.Error.NotPermitted";
/// The text, or the memory or work to check it, is over a limit.
constexpr char ERROR_TOO_LARGE[] = "com.norvane.qor.Error.TooLarge";
/// The policy could not be stored; the old one is in force.
constexpr char ERROR_NOT_STORED[] = "com.norvane.qor.Error.NotStored";
/// The disk failed half-way: nobody knows which policy the next start will find.
constexpr char ERROR_STATE_UNKNOWN[] = "com.norvane.qor.Error.StateUnknown";
/// The policy in force is not the one that the caller has named.
constexpr char ERROR_CHANGED[] = "com.norvane.qor.Error.Changed";
/// No policy is in force, or no policy of that number is kept.
constexpr char ERROR_NO_SUCH_POLICY[] = "com.norvane.qor.Error.NoSuchPolicy";
/// The policy exists, but cannot be read or does not fit into a message; or the service does not
/// know at the moment whether the caller may read it.
constexpr char ERROR_NOT_READ[] = "com.norvane.qor.Error.NotRead";
/// The policy is not UTF-8, which a D-Bus string must be; GetPolicyBytes returns it.
constexpr char ERROR_NOT_TEXT[] = "com.norvane.qor.Error.NotText";

} // namespace qor

#endif
