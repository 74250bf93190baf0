// sf: the public interface of the server-framework library.
//
// This umbrella header includes the header of each component. Include it, or
// a component header.
#pragma once

#include "sf/base/buffer.h"

#include "sf/base/events.h"
#include "sf/base/locks.h"
#include "sf/base/stats.h"
#include "sf/ber/sfbercomponent.h"
#include "sf/ber/sfbercomponentencoder.h"
#include "sf/http/httpadaptor.h"
#include "sf/http/httpreader.h"
#include "sf/net/adaptor.h"
#include "sf/net/connection.h"
#include "sf/net/handover.h"
#include "sf/net/port.h"
#include "sf/net/reader.h"
#include "sf/runtime.h"
#include "sf/script/tcl.h"
#include "sf/work/message.h"
#include "sf/work/msgq.h"
#include "sf/work/timer.h"
#include "sf/work/watchdog.h"
#include "sf/work/worker.h"
