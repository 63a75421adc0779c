// CorvanthUtil: everything a process of the product needs to include.
#pragma once

#include "CorvanthExport.h"
#include "CorvanthVersion.h"

// foundation
#include "FrimCoreError.h"
#include "FrimException.h"
#include "FrimLog.h"
#include "FrimString.h"
#include "FrimThread.h"
#include "FrimTime.h"
#include "Log.dec.h"
#include "Static.h"
#include "Synch.h"

// containers
#include "rwthrerr.h"
#include "rwxmsg.h"
