#pragma once

#include "base/access.h"
#include "base/types.h"

// The request, response and result types every route and syscall speaks are
// plain values defined below the kernel (identity's routes use them too);
// the kernel and the modules name them as the kernel's own.
namespace ostrel::kernel {

using base::AuthResult;
using base::BodyReader;
using base::HeaderMap;
using base::Request;
using base::Response;
using base::RouteOptions;
using base::sse_event;
using base::StreamProducer;
using base::StreamWrite;
using base::SyscallResult;

}  // namespace ostrel::kernel
