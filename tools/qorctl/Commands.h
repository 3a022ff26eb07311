// The sub-commands; each returns the process's exit status.
#ifndef QORCTL_COMMANDS_H
#define QORCTL_COMMANDS_H

#include "qorctl/Options.h"

namespace qorctl
{

int Info(const TSOptions& options);
int SetPolicy(const TSOptions& options);
int Listen(const TSOptions& options);
int Status(const TSOptions& options);

} // namespace qorctl

#endif
