#pragma once

/// Recording of what happens to every frame, for Perfetto and other viewers of the Chrome trace event format.
/// Part of the library `kor-trace` (CMake target `kor::trace`, pkg-config `kor-trace`), not of `kor`.
///
///     kor::Trace trace;
///     kor::TracedSlave<MySlave> slave(trace, ...);    // instead of MySlave slave(...)
///     trace.begin({.process = "left"});
///     ...                                             // the render loop, unchanged
///     trace.write("left.json");
///
/// `kor::TracedMaster<MyMaster>` does the same for a master. What the adapters cannot see, the application
/// adds: `Trace::frameSent` or a `TraceSpan` around its drawing. `kor-trace-merge` joins the files of all
/// processes to one time line.

#include "trace/Trace.h"
#include "trace/TracedMaster.h"
#include "trace/TracedSlave.h"
