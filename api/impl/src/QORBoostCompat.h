// Names that differ between the supported releases of Boost.
#ifndef QOR_QORBOOSTCOMPAT_H
#define QOR_QORBOOSTCOMPAT_H

#include <boost/filesystem/operations.hpp>
#include <boost/version.hpp>

namespace qor
{

#if BOOST_VERSION >= 107400
using TCopyOption = boost::filesystem::copy_options;
constexpr TCopyOption COPY_OVERWRITE = TCopyOption::overwrite_existing;
constexpr TCopyOption COPY_FAIL_IF_EXISTS = TCopyOption::none;
#else
using TCopyOption = boost::filesystem::copy_option;
constexpr TCopyOption COPY_OVERWRITE = TCopyOption::overwrite_if_exists;
constexpr TCopyOption COPY_FAIL_IF_EXISTS = TCopyOption::fail_if_exists;
#endif

} // namespace qor

#endif
