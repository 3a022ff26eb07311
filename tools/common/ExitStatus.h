// Exit statuses of the tools.
#ifndef TOOLS_COMMON_EXITSTATUS_H
#define TOOLS_COMMON_EXITSTATUS_H

namespace tools
{

enum EExitStatus
{
    EXIT_OK = 0,
    EXIT_REFUSED = 1,       ///< qorctl: the service refused, or is not healthy; the policy is no
                            ///< good; there is a difference. qord: it cannot go on.
    EXIT_NOT_DELIVERED = 2, ///< qorctl: no bus, no service, or no answer.
    EXIT_BAD_ANSWER = 3,    ///< qorctl: an answer that cannot be read.
    EXIT_NOT_HEARD = 4,     ///< qorctl: not all applications have heard of the policy in time.
    EXIT_WRONG_USAGE = 64,  ///< The command line, or the input that it names.
    EXIT_NO_OUTPUT = 74 ///< The result could not be written; the command itself was carried out.
};

} // namespace tools

#endif
