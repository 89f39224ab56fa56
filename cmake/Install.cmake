# What `cmake --install` puts where:
#
#   bin/talvexctl, bin/talvexsim
#   lib/libtalvexioreport.so*                  the report-channel library with the
#                                              platform layer it runs on, as one
#                                              shared library
#   include/talvex/IOReport.h                  its public header, and beside it the
#   include/talvex/{CoreFoundation,IOKit,...}  platform headers it includes
#   lib/pkgconfig/talvex-ioreport.pc           pkg-config talvex-ioreport
#   lib/cmake/TalvexIOReport/                  find_package(TalvexIOReport):
#                                              target TalvexIOReport::ioreport
#   share/man/man1/talvexctl.1, talvexsim.1
#   share/bash-completion/completions/talvexctl, talvexsim
#
# The headers live in their own folder because several of them carry the
# names of system headers (Block.h, dispatch/dispatch.h, mach/mach.h) that
# other packages install at the top of include/.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TALVEX_INSTALL_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}/talvex")
set(TALVEX_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/TalvexIOReport")

foreach(_tool talvexctl talvexsim)
  if(TARGET ${_tool})
    install(TARGETS ${_tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()

# The tool links the static libraries; other programs get one shared library
# made of the same objects (everything is built position-independent).
# Those objects are compiled with hidden visibility: the library exports what
# the installed headers declare (they mark their declarations visible) and
# nothing else; the install.exports test checks the two against each other.
if(TARGET talvex_ioreport AND TARGET talvex_host)
  set_target_properties(talvex_ioreport talvex_host talvex_cf talvex_wire PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  add_library(talvexioreport SHARED
    $<TARGET_OBJECTS:talvex_ioreport>
    $<TARGET_OBJECTS:talvex_host>
    $<TARGET_OBJECTS:talvex_cf>
    $<TARGET_OBJECTS:talvex_wire>)
  add_library(TalvexIOReport::ioreport ALIAS talvexioreport)
  set_target_properties(talvexioreport PROPERTIES
    EXPORT_NAME ioreport
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    LINKER_LANGUAGE CXX
    LINK_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/talvexioreport.map)
  target_link_options(talvexioreport PRIVATE
    "LINKER:--version-script=${CMAKE_CURRENT_LIST_DIR}/talvexioreport.map")
  target_include_directories(talvexioreport INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/ioreport>
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/host/include>
    $<INSTALL_INTERFACE:${TALVEX_INSTALL_INCLUDEDIR}>)
  target_compile_features(talvexioreport INTERFACE cxx_std_17)

  install(TARGETS talvexioreport EXPORT TalvexIOReportTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(FILES ${PROJECT_SOURCE_DIR}/ioreport/IOReport.h DESTINATION ${TALVEX_INSTALL_INCLUDEDIR})
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/host/include/ DESTINATION ${TALVEX_INSTALL_INCLUDEDIR}
    FILES_MATCHING PATTERN "*.h")

  # CMake package. The generated files find the prefix from where they lie,
  # so an installed tree can be moved.
  install(EXPORT TalvexIOReportTargets NAMESPACE TalvexIOReport::
    FILE TalvexIOReportTargets.cmake DESTINATION ${TALVEX_INSTALL_CMAKEDIR})
  configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/TalvexIOReportConfig.cmake.in
    ${PROJECT_BINARY_DIR}/TalvexIOReportConfig.cmake
    INSTALL_DESTINATION ${TALVEX_INSTALL_CMAKEDIR})
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/TalvexIOReportConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/TalvexIOReportConfig.cmake
    ${PROJECT_BINARY_DIR}/TalvexIOReportConfigVersion.cmake
    DESTINATION ${TALVEX_INSTALL_CMAKEDIR})

  # pkg-config file. Its prefix is found from the file's own place
  # (${pcfiledir}), so `cmake --install --prefix DIR` needs no reconfigure.
  set(_pc_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
  if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set(TALVEX_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
    set(TALVEX_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
  else()
    file(RELATIVE_PATH _up "/prefix/${_pc_dir}" "/prefix")
    string(REGEX REPLACE "/$" "" _up "${_up}")
    set(TALVEX_PC_PREFIX "\${pcfiledir}/${_up}")
    set(TALVEX_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  endif()
  if(IS_ABSOLUTE "${TALVEX_INSTALL_INCLUDEDIR}")
    set(TALVEX_PC_INCLUDEDIR "${TALVEX_INSTALL_INCLUDEDIR}")
  else()
    set(TALVEX_PC_INCLUDEDIR "\${prefix}/${TALVEX_INSTALL_INCLUDEDIR}")
  endif()
  configure_file(${CMAKE_CURRENT_LIST_DIR}/talvex-ioreport.pc.in ${PROJECT_BINARY_DIR}/talvex-ioreport.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/talvex-ioreport.pc DESTINATION ${_pc_dir})
endif()

install(FILES ${PROJECT_SOURCE_DIR}/docs/talvexctl.1 ${PROJECT_SOURCE_DIR}/docs/talvexsim.1
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

# bash-completion loads a command's completion from a file named after the
# command; one script serves both.
foreach(_tool talvexctl talvexsim)
  install(FILES ${PROJECT_SOURCE_DIR}/completion/talvexctl.bash
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ${_tool})
endforeach()
