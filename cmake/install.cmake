# Installation of recstore, so that a host application or a firmware image can be built from the
# installed tree alone: the shared library with its version links, the public header, the
# reference host (static library and header), the recstore tool with its manual page and bash
# completion, a pkg-config file and a CMake package with the targets recstore::recstore and
# recstore::recstore_host.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(RECSTORE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/recstore)

# The installed targets find their headers in the include directory.
target_include_directories(recstore INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_include_directories(recstore_host INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

install(TARGETS recstore recstore_host EXPORT recstoreTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/include/recstore.h ${PROJECT_SOURCE_DIR}/host/recstore_host.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

if(RECSTORE_BUILD_TOOLS)
  install(TARGETS recstore_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
  if(EXISTS ${PROJECT_SOURCE_DIR}/docs/recstore.1)
    install(FILES ${PROJECT_SOURCE_DIR}/docs/recstore.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
            COMPONENT runtime)
  endif()
  install(FILES ${PROJECT_SOURCE_DIR}/tools/recstore.bash-completion
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME recstore
          COMPONENT runtime)
endif()

# pkg-config: the prefix is the one given at install time (cmake --install --prefix), the
# directories are relative to it, so that PKG_CONFIG_SYSROOT_DIR works on a staged tree.
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(RECSTORE_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(RECSTORE_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
set(RECSTORE_PC_PREFIX "@RECSTORE_PC_PREFIX@")
configure_file(${CMAKE_CURRENT_LIST_DIR}/recstore.pc.in ${PROJECT_BINARY_DIR}/recstore.pc.in @ONLY)
install(CODE "set(RECSTORE_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
configure_file(\"${PROJECT_BINARY_DIR}/recstore.pc.in\" \"${PROJECT_BINARY_DIR}/recstore.pc\" @ONLY)"
        COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/recstore.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)

# CMake package: find_package(recstore CONFIG).
install(EXPORT recstoreTargets NAMESPACE recstore:: DESTINATION ${RECSTORE_CMAKE_DIR}
        COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/recstoreConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/recstoreConfig.cmake
                              INSTALL_DESTINATION ${RECSTORE_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/recstoreConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/recstoreConfig.cmake
              ${PROJECT_BINARY_DIR}/recstoreConfigVersion.cmake
        DESTINATION ${RECSTORE_CMAKE_DIR} COMPONENT development)

# A parent project that pulls recstore in with add_subdirectory uses the same names.
if(NOT TARGET recstore::recstore)
  add_library(recstore::recstore ALIAS recstore)
  add_library(recstore::recstore_host ALIAS recstore_host)
endif()

# The install check: a staged install, the C example built from it alone through pkg-config and
# through the CMake package, natively and for ARM, and run on a rig disk with the installed tool.
# Sanitizer and fuzz builds are left out: a plain program cannot load their instrumented library.
if(TARGET rig_test_example AND RECSTORE_BUILD_TOOLS AND NOT RECSTORE_SANITIZE AND NOT RECSTORE_FUZZ
   AND NOT CMAKE_CROSSCOMPILING)
  add_test(NAME rig.install COMMAND ${PROJECT_SOURCE_DIR}/tests/install/check-install.sh
                                    ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR})
  set_tests_properties(rig.install PROPERTIES LABELS rig SKIP_RETURN_CODE 77 TIMEOUT 1800
                                              RUN_SERIAL TRUE)
endif()
