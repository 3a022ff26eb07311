// A record that describes one buffer of its user.
#ifndef QOR_QORBUFFERPROPERTIES_H
#define QOR_QORBUFFERPROPERTIES_H

#include <qor/Export.h>

namespace qor
{

/// Identity and state of a buffer. Plain data: a fresh record is not initialised (call Init), owns
/// nothing and may be copied bytewise. No function locks, blocks or throws.
///
/// The record is also the ordering of pointers to records, for containers such as
/// std::set<TSBufferProperties*, TSBufferProperties>. The ids of a record must not change while a
/// container holds it.
struct QOR_API TSBufferProperties
{
public:
    /// Clears both flags and sets both ids to 0.
    void Init();

    bool IsDestroyed() const;          ///< Whether the buffer has been destroyed.
    void SetDestroyed(bool destroyed); ///< Says whether the buffer has been destroyed.

    bool IsPersistent() const;           ///< Whether the buffer is persistent.
    void SetPersistent(bool persistent); ///< Says whether the buffer is persistent.

    unsigned int GetBufferId() const;  ///< The buffer id, the first key of the order.
    void SetBufferId(unsigned int id); ///< Sets the buffer id; the flags stay as they are.

    /// Takes a fresh id from a counter that all users of the ids share, and clears the destroyed
    /// flag. The counter goes up by one and its new value is the id, so a counter that starts at 0
    /// hands out 1, 2, 3 and so on (0 after 4294967295). Any number of threads may share the
    /// counter, and no two get the same id; the increment orders no other memory access. The record
    /// itself is not guarded.
    ///
    /// @param pCounter  not null
    void SetBufferId(volatile unsigned int* pCounter);

    short GetSecondaryId() const;  ///< The secondary id, the second key of the order.
    void SetSecondaryId(short id); ///< Sets the secondary id.

    /// Whether a orders before b: by buffer id, then by secondary id. The flags do not count, nor
    /// does the record that this is called on. Neither pointer may be null.
    bool operator()(TSBufferProperties* a, TSBufferProperties* b);

    /// The same, as the standard containers call it.
    bool operator()(TSBufferProperties* a, TSBufferProperties* b) const;

private:
    bool m_destroyed;
    bool m_persistent;
    unsigned int m_bufferId;
    short m_secondaryId;
};

} // namespace qor

#endif
