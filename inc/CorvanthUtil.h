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

// events and process groups
#include "KRPlatform.h"
#include "clntsrv.h"
#include "processgroupmanager.h"

// sockets
#include "LintelSocket.h"
#include "basesocket.h"
#include "streamsocket.h"

// local message transport
#include "NVSMSG.h"
#include "WinMsg.h"

// host: service configurator and support report
#include "CorvanthServiceConfig.h"
#include "HostInfo.h"
#include "Scm.h"
#include "SupportInformationGenerator.h"

// containers
#include "rwassoc.h"
#include "rwcollect.h"
#include "rwcollection.h"
#include "rwcollint.h"
#include "rwcollstr.h"
#include "rwcstring.h"
#include "rwdefs.h"
#include "rwerr.h"
#include "rwhashdict.h"
#include "rwhashtab.h"
#include "rwordered.h"
#include "rwseqcol.h"
#include "rwset.h"
#include "rwslist.h"
#include "rwstore.h"
#include "rwthrerr.h"
#include "rwtoken.h"
#include "rwxmsg.h"

// dictionaries
#include "AssociativeArray.h"
#include "filesassociationarchive.h"

// settings, paths and code pages
#include "KREnvironment.h"
#include "Uzend.h"

// errors and addresses
#include "AssociativeArrayExceptions.h"
#include "CKRErrorInfo.h"
#include "CorvanthAddress.h"
#include "KRErrorException.h"
#include "KRErrorsDictionary.h"
#include "KRLogMessage.h"
