# Keeps the dependences between folders one way: a folder that includes what it may not does not build.
#
# tarn_check_includes(TARGET FOLDER ALLOWED...): before TARGET is built, every #include "A/B/FILE.h" in the files of
# FOLDER must name one of the ALLOWED folders or one below it. An include that names no folder is refused.
function(tarn_check_includes target folder)
  file(GLOB files CONFIGURE_DEPENDS ${folder}/*.h ${folder}/*.cpp)
  set(stamp ${CMAKE_CURRENT_BINARY_DIR}/${target}.includes)
  add_custom_command(OUTPUT ${stamp}
    COMMAND ${CMAKE_COMMAND} "-DFILES=${files}" "-DALLOWED=${ARGN}" -DSTAMP=${stamp} -P ${CMAKE_CURRENT_FUNCTION_LIST_FILE}
    DEPENDS ${files} ${CMAKE_CURRENT_FUNCTION_LIST_FILE}
    VERBATIM COMMENT "Checking the includes of ${folder}")
  add_custom_target(${target}_includes DEPENDS ${stamp})
  add_dependencies(${target} ${target}_includes)
endfunction()

if(NOT CMAKE_SCRIPT_MODE_FILE)
  return()
endif()
cmake_minimum_required(VERSION 3.22)
foreach(file IN LISTS FILES)
  file(STRINGS ${file} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^[^\"]*\"([^\"]*)\".*$" "\\1" include "${line}")
    set(found FALSE)
    foreach(folder IN LISTS ALLOWED)
      string(FIND "${include}" "${folder}/" position)
      if(position EQUAL 0)
        set(found TRUE)
      endif()
    endforeach()
    if(NOT found)
      message(SEND_ERROR "${file} may not include \"${include}\"; it may from: ${ALLOWED}")
      set(refused TRUE)
    endif()
  endforeach()
endforeach()
if(NOT refused)
  file(TOUCH ${STAMP})
endif()
