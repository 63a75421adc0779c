# Finds libzmq, which ships a pkg-config file but no CMake package on Debian.
# Defines ZeroMQ_FOUND and the imported target ZeroMQ::ZeroMQ.
find_path(ZeroMQ_INCLUDE_DIR zmq.h)
find_library(ZeroMQ_LIBRARY zmq)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(ZeroMQ REQUIRED_VARS ZeroMQ_LIBRARY ZeroMQ_INCLUDE_DIR)
if(ZeroMQ_FOUND AND NOT TARGET ZeroMQ::ZeroMQ)
  add_library(ZeroMQ::ZeroMQ UNKNOWN IMPORTED)
  set_target_properties(ZeroMQ::ZeroMQ PROPERTIES IMPORTED_LOCATION ${ZeroMQ_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${ZeroMQ_INCLUDE_DIR})
endif()
mark_as_advanced(ZeroMQ_INCLUDE_DIR ZeroMQ_LIBRARY)
