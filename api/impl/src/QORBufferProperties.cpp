// The buffer record.
#include <qor/QORBufferProperties.h>

#include <type_traits>

namespace qor
{

// The record is plain data.
static_assert(std::is_trivial<TSBufferProperties>::value, "no constructor");
static_assert(std::is_standard_layout<TSBufferProperties>::value, "fields in order");

void TSBufferProperties::Init()
{
    m_destroyed = false;
    m_persistent = false;
    m_bufferId = 0;
    m_secondaryId = 0;
}

bool TSBufferProperties::IsDestroyed() const
{
    return m_destroyed;
}

void TSBufferProperties::SetDestroyed(bool destroyed)
{
    m_destroyed = destroyed;
}

bool TSBufferProperties::IsPersistent() const
{
    return m_persistent;
}

void TSBufferProperties::SetPersistent(bool persistent)
{
    m_persistent = persistent;
}

unsigned int TSBufferProperties::GetBufferId() const
{
    return m_bufferId;
}

void TSBufferProperties::SetBufferId(unsigned int id)
{
    m_bufferId = id;
}

void TSBufferProperties::SetBufferId(volatile unsigned int* pCounter)
{
    SetDestroyed(false);
    m_bufferId = __atomic_add_fetch(pCounter, 1U, __ATOMIC_RELAXED);
}

short TSBufferProperties::GetSecondaryId() const
{
    return m_secondaryId;
}

void TSBufferProperties::SetSecondaryId(short id)
{
    m_secondaryId = id;
}

bool TSBufferProperties::operator()(TSBufferProperties* a, TSBufferProperties* b)
{
    const TSBufferProperties& ordering = *this;
    return ordering(a, b);
}

bool TSBufferProperties::operator()(TSBufferProperties* a, TSBufferProperties* b) const
{
    if (a->GetBufferId() != b->GetBufferId())
    {
        return a->GetBufferId() < b->GetBufferId();
    }
    return a->GetSecondaryId() < b->GetSecondaryId();
}

} // namespace qor
