// The library's cached look-up.
#include <qor/QORCachingUtils.h>
#include <qor/QORDebug.h>

#include "LookUp.h"

int main()
{
    qor::TCDebug::m_instance.EnableStdoutLog(false);
    qor::TCDebug::m_instance.EnableFileLog(false);
    return qorbench::RunLookUps(&qor::TCVelkinCachingUtils::GetVconfCachedString);
}
