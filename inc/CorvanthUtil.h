// CorvanthUtil: everything a process of the product needs to include.
#pragma once

#include "CorvanthExport.h"
#include "CorvanthVersion.h"

// foundation
#include "DebugSection.h"
#include "FirstZ0.h"
#include "FrimCoreError.h"
#include "FrimException.h"
#include "FrimLifetime.h"
#include "FrimLog.h"
#include "FrimString.h"
#include "FrimThread.h"
#include "FrimTime.h"
#include "Lifetime.h"
#include "Log.dec.h"
#include "LogBuild.h"
#include "Placer.h"
#include "RWMutexLock.h"
#include "Sptr.h"
#include "Static.h"
#include "Synch.h"
#include "Tag.dec.h"

// messages
#include "Nvspackmsg.h"
#include "netmsg.h"
#include "packmsg.h"

// containers
#include "rwthrerr.h"
#include "rwxmsg.h"
