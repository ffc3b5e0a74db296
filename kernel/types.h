#pragma once

#include "base/access.h"
#include "base/logger.h"
#include "base/types.h"

// The request, response and result types every route and syscall speaks,
// and the tagged logger, are defined below the kernel (identity and the
// cluster layer use them too); the kernel and the modules name them as the
// kernel's own.
namespace ostrel::kernel {

using base::AuthResult;
using base::BodyReader;
using base::HeaderMap;
using base::Logger;
using base::Request;
using base::Response;
using base::RouteOptions;
using base::sse_event;
using base::StreamProducer;
using base::StreamWrite;
using base::SyscallAccess;
using base::SyscallResult;

}  // namespace ostrel::kernel
