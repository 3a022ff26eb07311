// The integer that the reference service answers to a new policy.
#ifndef QOR_POLICYRESULT_H
#define QOR_POLICYRESULT_H

namespace qor
{

/// Result codes of qord for a policy handed over with IControl::SetPolicy. The library carries any
/// integer; another service may use codes of its own. -1 never comes from the service: it is the
/// library's word for a message that brought no successful reply.
enum EPolicyResult
{
    POLICY_STORED = 0,          ///< The policy is stored and synced to disk.
    POLICY_NOT_WELL_FORMED = 1, ///< The text is not well-formed XML; the old policy is in force.
    POLICY_NOT_STORED = 2,      ///< The policy could not be stored; the old policy is in force.
    POLICY_TOO_LARGE = 3 ///< The text is over the service's limit; the old policy is in force.
};

} // namespace qor

#endif
