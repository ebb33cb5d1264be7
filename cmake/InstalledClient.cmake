# KX::Client from an installed tree: the daemon needs its public headers and the library, nothing else.
find_path(KX_CLIENT_INCLUDE_DIR kxl/KXLAccessPointPrototype.h
          PATHS ${KX_CLIENT_ROOT}/include NO_DEFAULT_PATH REQUIRED)
find_library(KX_CLIENT_LIBRARY kxclient
             PATHS ${KX_CLIENT_ROOT}/lib ${KX_CLIENT_ROOT}/${CMAKE_INSTALL_LIBDIR} NO_DEFAULT_PATH REQUIRED)
add_library(KX::Client SHARED IMPORTED)
set_target_properties(KX::Client PROPERTIES
  IMPORTED_LOCATION ${KX_CLIENT_LIBRARY}
  INTERFACE_INCLUDE_DIRECTORIES ${KX_CLIENT_INCLUDE_DIR}
  INTERFACE_LINK_LIBRARIES Threads::Threads)
