// How a forked child treats inherited objects.
//
// The child has one thread. Locks that other threads of the parent held stay locked in it, a
// condition variable they waited on cannot even be destroyed, and a container that one of them was
// changing may be in any state. So the child neither uses nor releases inherited objects.
#ifndef QOR_QORFORK_H
#define QOR_QORFORK_H

#include <new>

namespace qor
{

// Constructs the object anew in its place, without releasing the inherited content.
template <class T>
void MakeAnew(T& object)
{
    new (&object) T();
}

// Makes the library's static locks usable in the child; see QORGlobals.cpp.
struct TSForkHandler
{
    TSForkHandler();
    static void ResetLocks();
};

} // namespace qor

#endif
