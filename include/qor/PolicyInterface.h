// The names of the interface that qord has for everybody, whatever their language.
#ifndef QOR_POLICYINTERFACE_H
#define QOR_POLICYINTERFACE_H

namespace qor
{

/// On the service's object, beside the channel's interface. What it has is described in
/// com.norvane.qor.Policy1.xml, which is installed among the system's D-Bus interfaces.
constexpr char POLICY_INTERFACE[] = "com.norvane.qor.Policy1";

// The names of its errors.

/// The text is not well-formed XML; the words say where.
constexpr char ERROR_NOT_WELL_FORMED[] = "com.norvane.qor.Error.NotWellFormed";
/// The sender may not do that.
constexpr char ERROR_NOT_PERMITTED[] = "com.norvane.qor.Error.NotPermitted";
/// The text, or the memory or work to check it, is over a limit.
constexpr char ERROR_TOO_LARGE[] = "com.norvane.qor.Error.TooLarge";
/// The policy could not be stored; the old one is in force.
constexpr char ERROR_NOT_STORED[] = "com.norvane.qor.Error.NotStored";
/// The disk failed half-way: nobody knows which policy the next start will find.
constexpr char ERROR_STATE_UNKNOWN[] = "com.norvane.qor.Error.StateUnknown";
/// Another policy is in force than the caller has said.
constexpr char ERROR_CHANGED[] = "com.norvane.qor.Error.Changed";
/// None is in force, or none of that number is kept.
constexpr char ERROR_NO_SUCH_POLICY[] = "com.norvane.qor.Error.NoSuchPolicy";
/// It is there, but cannot be read or does not fit into a message; or it is not known just now
/// whether the caller may read it.
constexpr char ERROR_NOT_READ[] = "com.norvane.qor.Error.NotRead";
/// It is not UTF-8, which a D-Bus string must be; its bytes can be had.
constexpr char ERROR_NOT_TEXT[] = "com.norvane.qor.Error.NotText";

} // namespace qor

#endif
