// Process groups: named groups of process handles that are killed as a unit,
// newest first.
//
// A ProcessesGroupManager maps a group name (an RWCollectableString key, exact
// and case-sensitive) to a ProcessGroup, an ordered list of ProcessInfo
// records in the order of addition. TerminateGroup kills the members from the
// newest to the oldest through gMXPKillProcess (KRPlatform.h) and removes the
// group, so that the name is free again.
//
// Ownership: the manager's keys and groups, and a group's records, live on the
// heap. TerminateGroup destroys the group, its records and its key;
// RemoveProcess and TerminateElementZ0 destroy the record they take out.
// Otherwise nothing is destroyed by a destructor: destroying a manager leaves
// its keys, groups and records alive and its processes running, and copies of
// a manager or a group share keys, groups and records. Process handles come
// from MXPOpenProcess or MXPOpenProcessGroup (KRPlatform.h) and are never
// closed here: that stays with whoever made them.
//
// Nothing here locks: a manager used from several threads must be guarded by
// its user.
#pragma once

#include "CorvanthExport.h"
#include "rwcollect.h"
#include "rwcstring.h"
#include "rwhashdict.h"
#include "rwordered.h"

// One process handle in a group. It equals only itself.
struct CORVANTH_EXPORT ProcessInfo : public RWCollectable {
  explicit ProcessInfo(void* processHandle) : handle(processHandle) {}
  ProcessInfo(ProcessInfo const&) = default;
  ProcessInfo& operator=(ProcessInfo const&) = default;
  ~ProcessInfo() override;

  void* handle;  // not owned, never closed
};

// The members of one group, index 0 the oldest.
class CORVANTH_EXPORT ProcessGroup : public RWOrdered {
 public:
  ProcessGroup() = default;
  ProcessGroup(ProcessGroup const&) = default;
  ProcessGroup& operator=(ProcessGroup const&) = default;
  // Leaves the records alive.
  ~ProcessGroup() override;

  // Appends a record of the handle and gives its index, the last one.
  int AddProcess(void* handle);
  // Takes out the record at `index`, destroys it and gives its handle; the
  // process keeps running. An index out of range raises RWBoundsErr.
  void* RemoveProcess(int index);
  // Takes out the record at `index`, kills its process and destroys the
  // record; true when the kill step succeeded. RWBoundsErr out of range.
  bool TerminateElementZ0(int index);
  // Kills and removes every member, newest first, going on after a failed
  // step; true when every step succeeded (an empty group gives true).
  bool TerminateGroupZ0();

  // Stored for whoever holds the group; nothing here reads it.
  int groupValue = 1;
};

class CORVANTH_EXPORT ProcessesGroupManager : public RWHashDictionary {
 public:
  ProcessesGroupManager() = default;
  ProcessesGroupManager(ProcessesGroupManager const&) = default;
  ProcessesGroupManager& operator=(ProcessesGroupManager const&) = default;
  // Neither terminates nor destroys the groups.
  ~ProcessesGroupManager() override;

  // Adds the handle to the named group, created at need; gives the group, or
  // null when the name could not be stored. A handle may stand in a group twice.
  ProcessGroup* AddProcessToGroup(RWCString& name, void*& handle);
  // The same, and a non-null group then takes `value` as its groupValue.
  ProcessGroup* AddProcessToGroup(RWCString& name, void*& handle, int value);
  // The group of that name, or null.
  ProcessGroup* GetProcessGroup(RWCString& name);
  // Kills the group's members newest first and removes the group; true only
  // if the group existed and every kill step succeeded. The group is removed
  // whatever the kills gave.
  bool TerminateGroup(RWCString& name);
};
