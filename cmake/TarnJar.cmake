# The tools of the JDK as TARNBOOSTER_JAVA, TARNBOOSTER_JAVAC and TARNBOOSTER_JAR, and how a jar is made.

# Not CMake's FindJava: it takes whatever JDK stands first on a machine that has several.
foreach(tool java javac jar)
  string(TOUPPER ${tool} upper)
  find_program(TARNBOOSTER_${upper} ${tool} HINTS ENV JAVA_HOME
    PATHS /usr/lib/jvm/java-17-openjdk-amd64 /usr/lib/jvm/java-17-openjdk-arm64 /usr/lib/jvm/default-java
    PATH_SUFFIXES bin NO_DEFAULT_PATH REQUIRED DOC "${tool} of OpenJDK 17")
endforeach()

# tarn_jar(TARGET NAME RELEASE SOURCES FILE... [OPTIONS OPTION...] [CLASSPATH JAR...] [FILES FILE...] [MAIN CLASS])
#
# Builds NAME.jar for Java RELEASE into the current build folder; its path is the property TARN_JAR of TARGET. OPTIONS
# go to javac, FILES (relative to the source folder) into the jar as they are. The jar holds no time of its own, so
# equal sources give equal jars.
function(tarn_jar target name release)
  cmake_parse_arguments(PARSE_ARGV 3 arg "" "MAIN" "SOURCES;OPTIONS;CLASSPATH;FILES")
  set(classes ${CMAKE_CURRENT_BINARY_DIR}/${name}.classes)
  set(jar ${CMAKE_CURRENT_BINARY_DIR}/${name}.jar)
  list(TRANSFORM arg_SOURCES PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  list(JOIN arg_CLASSPATH ":" classpath)
  set(contents)
  foreach(file IN LISTS arg_FILES)
    list(APPEND contents -C ${CMAKE_CURRENT_SOURCE_DIR} ${file})
  endforeach()
  list(TRANSFORM arg_FILES PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  if(arg_MAIN)
    set(main --main-class=${arg_MAIN})
  endif()
  # -options: that release 8 is old is known, and wanted.
  add_custom_command(
    OUTPUT ${jar}
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${classes}
    COMMAND ${TARNBOOSTER_JAVAC} --release ${release} -encoding UTF-8 -g -Xlint:all,-options -Werror -implicit:none
      ${arg_OPTIONS} -cp "${classpath}" -d ${classes} ${arg_SOURCES}
    COMMAND ${TARNBOOSTER_JAR} --create --file ${jar} --date=2024-01-01T00:00:00Z ${main} ${contents} -C ${classes} .
    DEPENDS ${arg_SOURCES} ${arg_CLASSPATH} ${arg_FILES}
    VERBATIM COMMENT "Building ${name}.jar")
  add_custom_target(${target} ALL DEPENDS ${jar})
  set_target_properties(${target} PROPERTIES TARN_JAR ${jar})
endfunction()
