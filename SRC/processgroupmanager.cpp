#include "processgroupmanager.h"

#include <cstddef>
#include <memory>

#include "KRPlatform.h"
#include "Log.dec.h"
#include "rwcollstr.h"

namespace {

// The "%d" stays literal in these texts; the handle follows behind a tab.
char const* gKillMessage(tMXPKillProcess_ result) {
  switch (result) {
    case eMXPKillProcessKilled:
      return "gKillProcess(%d) killed";
    case eMXPKillProcessAlreadyTerminated:
      return "gKillProcess(%d) already terminated";
    case eMXPKillProcessCannotFind:
      return "gKillProcess(%d) error cannot find";
    case eMXPKillProcessCannotKill:
      return "gKillProcess(%d) error cannot kill";
  }
  return "gKillProcess(%d) unknown error";
}

// A process that had ended by itself counts as a failed step as well.
bool gKillStep(ProcessInfo const& record) {
  tMXPKillProcess_ const result = gMXPKillProcess(record.handle);
  CORVANTH_LOG(nLog::nBasic::sExecutionTag_, "processgroupmanager",
               gKillMessage(result) << '\t' << record.handle);
  return result == eMXPKillProcessKilled;
}

}  // namespace

ProcessInfo::~ProcessInfo() = default;

// --- ProcessGroup -------------------------------------------------------------

ProcessGroup::~ProcessGroup() = default;

// The index is searched by identity from the front, so it is the last one.
int ProcessGroup::AddProcess(void* handle) {
  auto* const record = new ProcessInfo(handle);
  insert(record);
  return static_cast<int>(index(record));
}

void* ProcessGroup::RemoveProcess(int index) {
  std::unique_ptr<RWCollectable> const record(removeAt(static_cast<std::size_t>(index)));
  return static_cast<ProcessInfo*>(record.get())->handle;
}

bool ProcessGroup::TerminateElementZ0(int index) {
  std::unique_ptr<RWCollectable> const record(removeAt(static_cast<std::size_t>(index)));
  if (record == nullptr) {
    CORVANTH_LOG(nLog::nBasic::sErrorTag_, "processgroupmanager");
    return false;
  }
  return gKillStep(*static_cast<ProcessInfo*>(record.get()));
}

// Newest first: the order of killing is the reverse of the order of addition.
bool ProcessGroup::TerminateGroupZ0() {
  bool result = true;
  while (!isEmpty()) {
    std::unique_ptr<RWCollectable> const record(removeAt(entries() - 1));
    if (record == nullptr) break;
    if (!gKillStep(*static_cast<ProcessInfo*>(record.get()))) result = false;
  }
  return result;
}

// --- ProcessesGroupManager ----------------------------------------------------

ProcessesGroupManager::~ProcessesGroupManager() = default;

ProcessGroup* ProcessesGroupManager::AddProcessToGroup(RWCString& name, void*& handle) {
  // The key is made first and kept only when a new group is stored under it;
  // an unused key or group is released, which changes no result.
  auto key = std::make_unique<RWCollectableString>(name);
  ProcessGroup* group = GetProcessGroup(name);
  if (group == nullptr) {
    auto created = std::make_unique<ProcessGroup>();
    created->AddProcess(handle);
    if (insertKeyAndValue(key.get(), created.get()) == nullptr) {
      CORVANTH_LOG(
          nLog::nBasic::sTraceTag_, "processgroupmanager",
          "ProcessesGroupManager::AddProcessToGroup already in" << '\t' << name << '\t' << handle);
      created->clearAndDestroy();
      return nullptr;
    }
    key.release();
    group = created.release();
  } else {
    group->AddProcess(handle);
  }
  CORVANTH_LOG(nLog::nBasic::sTraceTag_, "processgroupmanager",
               "ProcessesGroupManager::AddProcessToGroup " << '\t' << name << '\t' << handle << '\t'
                                                           << static_cast<void*>(group));
  return group;
}

ProcessGroup* ProcessesGroupManager::AddProcessToGroup(RWCString& name, void*& handle, int value) {
  ProcessGroup* const group = AddProcessToGroup(name, handle);
  if (group != nullptr) group->groupValue = value;
  return group;
}

ProcessGroup* ProcessesGroupManager::GetProcessGroup(RWCString& name) {
  RWCollectableString const key(name);
  return static_cast<ProcessGroup*>(findValue(&key));
}

bool ProcessesGroupManager::TerminateGroup(RWCString& name) {
  ProcessGroup* const group = GetProcessGroup(name);
  if (group == nullptr) {
    CORVANTH_LOG(nLog::nBasic::sErrorTag_, "processgroupmanager",
                 "ProcessesGroupManager::TerminateGroup unknown group " << '\t' << name);
    return false;
  }
  CORVANTH_LOG(nLog::nBasic::sExecutionTag_, "processgroupmanager",
               "ProcessesGroupManager::TerminateGroup terminating" << '\t' << name);
  bool const result = group->TerminateGroupZ0();
  // Key and group go whatever the kills gave: the name is free again.
  RWCollectableString const key(name);
  removeAndDestroy(&key);
  return result;
}
