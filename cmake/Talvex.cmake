# talvex_add_library(NAME SOURCES ... INCLUDE ... LINK ...)
# A static library of our own code, built with our warnings (talvex_warnings).
# With no sources yet it is an interface library, so the tree configures while
# parts are missing.
function(talvex_add_library name)
  cmake_parse_arguments(A "" "" "SOURCES;INCLUDE;LINK" ${ARGN})
  if(A_SOURCES)
    add_library(${name} STATIC ${A_SOURCES})
    target_include_directories(${name} PUBLIC ${A_INCLUDE})
    target_link_libraries(${name} PUBLIC ${A_LINK} PRIVATE talvex_warnings)
  else()
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${A_INCLUDE})
    target_link_libraries(${name} INTERFACE ${A_LINK})
  endif()
endfunction()
