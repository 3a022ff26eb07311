// The argument of Hello: the message types that a client wants.
#ifndef QOR_QOREVENTLIST_H
#define QOR_QOREVENTLIST_H

#include <cstddef>
#include <cstring>
#include <set>

#include <qor/Types.h>

namespace qor
{

// Four bytes for each type; what does not fill a type is ignored.
inline std::set<int> ReadEventList(const TByteArray& bytes)
{
    std::set<int> events;
    for (std::size_t i = 0; i + sizeof(int) <= bytes.size(); i += sizeof(int))
    {
        int type = 0;
        memcpy(&type, bytes.data() + i, sizeof type);
        events.insert(type);
    }
    return events;
}

} // namespace qor

#endif
