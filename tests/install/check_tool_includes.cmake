# Fails when a source of the kwq tool includes anything but its own headers ("kwq/..."), the
# installed headers (<kwqimage/...>), the standard library, CLI11, GLib or Qt. The tool links the
# shared library with only include/ on its path, so a private header can only sneak in by a
# relative path; this catches that too.
#   cmake -DTOOLS_DIR=<source>/tools -P check_tool_includes.cmake
file(GLOB_RECURSE sources "${TOOLS_DIR}/*.cc" "${TOOLS_DIR}/*.h")
set(bad "")
foreach(source IN LISTS sources)
  file(STRINGS "${source}" includes REGEX "^[ \t]*#[ \t]*include")
  foreach(line IN LISTS includes)
    string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*" "" target "${line}")
    if(target MATCHES "^\"kwq/[^.][^\"]*\"$")
      continue()  # the tool's own headers
    elseif(target MATCHES "^<kwqimage/(qt/)?[A-Za-z_]+\\.h>$" AND NOT target MATCHES "\\.\\.")
      continue()  # the installed headers, the Qt component's among them
    elseif(target MATCHES "^<Q[A-Za-z]+>$")
      continue()  # Qt, for `kwq view`
    elseif(target MATCHES "^<(CLI/CLI\\.hpp|glib\\.h|unistd\\.h|[a-z_]+)>$")
      continue()  # CLI11, GLib's main loop, POSIX and the standard library
    endif()
    list(APPEND bad "${source}: ${line}")
  endforeach()
endforeach()
if(bad)
  list(JOIN bad "\n  " text)
  message(FATAL_ERROR "the kwq tool includes headers a host does not have:\n  ${text}")
endif()
