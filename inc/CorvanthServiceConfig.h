// The service configurator: installs, removes, starts, controls and describes
// one service of the host's service manager, named in the object.
//
// Each operation opens the manager anew, does its work, prints what happened
// on standard output with printf and closes all it opened; nothing is kept
// between calls. Failures show only in the printed text ("<call> failed: ..."),
// never as an exception; apart from the two tests, name resolution and the
// helpers LockDatabase and ErrorPrinter, the operations return nothing. The
// texts are the product's console texts and stay as they are, odd ones
// included: "0x%d" prints a decimal number behind the prefix.
//
// Threads: an object belongs to one thread at a time; objects are independent,
// and only ChangeStartType guards itself against other writers, through the
// manager's database lock. Start blocks for as long as the service advances
// its checkpoint.
#pragma once

#include "CorvanthExport.h"
#include "Scm.h"

class CORVANTH_EXPORT CorvanthServiceConfig {
 public:
  // Leaves both names as they are: unset until assigned or resolved.
  CorvanthServiceConfig() {}
  // REQUIRES: both texts shorter than 257 bytes (longer ones are cut there).
  CorvanthServiceConfig(const char* serviceName, const char* displayName);
  CorvanthServiceConfig& operator=(const CorvanthServiceConfig& other);
  ~CorvanthServiceConfig() {}

  // Sets "cvservice<value>" and "Kestrun Corvanth Service <value>" from the
  // setting CORVANTH_SERVICE_VERSION_NAME; false, names untouched, without it.
  bool ResolveCorvanthServiceName();

  const char* GetServiceName() const { return serviceName; }
  const char* GetDisplayName() const { return displayName; }

  // 1 if the service can be opened; prints nothing.
  int IsInstalled();
  // 1 only if the service is in the running state (4); prints nothing.
  int IsRunning();

  // Creates the service for the running executable, silently nothing when it
  // exists already.
  void Install(unsigned long serviceType = SERVICE_WIN32_OWN_PROCESS,
               unsigned long startType = SERVICE_DEMAND_START, const char* dependencies = nullptr,
               const char* account = nullptr, const char* password = nullptr);
  // Deletes the service; only stopFirst == 1 sends a stop first.
  void Remove(int stopFirst);
  // Starts the service and waits while its checkpoint advances.
  void Start();
  // Sends a control code and prints the status it returned.
  void Control(unsigned long code);
  void Status();
  void GetConfig();
  // Prints the services that depend on this one.
  void Dependencies();
  // Automatic start on non-zero, demand start on 0, under the database lock.
  void ChangeStartType(int automatic);

  // The database lock of `manager`, or null after printing who holds it.
  void* LockDatabase(SC_HANDLE manager);
  // Prints "<operation> failed: <system text>" and gives `code` back.
  unsigned long ErrorPrinter(const char* operation, unsigned long code);

 private:
  char serviceName[257];
  char displayName[257];
};
