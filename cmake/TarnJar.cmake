# The tools of the JDK as TARNBOOSTER_JAVA, TARNBOOSTER_JAVAC and TARNBOOSTER_JAR, and how a jar is made.

# Not CMake's FindJava: it takes whatever JDK stands first on a machine that has several. Here it is JAVA_HOME's, else
# Debian's OpenJDK 17, else the one of PATH; any from 17 on will do.
foreach(tool java javac jar javadoc)
  string(TOUPPER ${tool} upper)
  find_program(TARNBOOSTER_${upper} ${tool} HINTS ENV JAVA_HOME
    PATHS /usr/lib/jvm/java-17-openjdk-amd64 /usr/lib/jvm/java-17-openjdk-arm64 /usr/lib/jvm/default-java
    PATH_SUFFIXES bin NO_DEFAULT_PATH DOC "${tool} of a JDK from 17 on")
  find_program(TARNBOOSTER_${upper} ${tool} NO_CMAKE_FIND_ROOT_PATH REQUIRED)
endforeach()
execute_process(COMMAND ${TARNBOOSTER_JAVAC} -version OUTPUT_VARIABLE javac_version ERROR_VARIABLE javac_version
  OUTPUT_STRIP_TRAILING_WHITESPACE)
string(REGEX REPLACE "^javac ([0-9]+).*" "\\1" javac_version "${javac_version}")
if(NOT javac_version GREATER_EQUAL 17)
  message(FATAL_ERROR "${TARNBOOSTER_JAVAC} is of JDK ${javac_version}; one from 17 on is needed (JAVA_HOME says where)")
endif()

# tarn_jar(TARGET NAME RELEASE SOURCES FILE... [OPTIONS OPTION...] [CLASSPATH JAR...] [FILES FILE...] [MAIN CLASS] [PUBLISHED])
#
# Builds NAME.jar for Java RELEASE into the current build folder; its path is the property TARN_JAR of TARGET. OPTIONS
# go to javac, FILES (relative to the source folder) into the jar as they are. The jar holds no time of its own, so
# equal sources give equal jars. PUBLISHED puts the project's version into the jar, and makes NAME-sources.jar and
# NAME-javadoc.jar, too, by the target TARGET_published, which the default build leaves out.
function(tarn_jar target name release)
  cmake_parse_arguments(PARSE_ARGV 3 arg "PUBLISHED" "MAIN" "SOURCES;OPTIONS;CLASSPATH;FILES")
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
  if(arg_PUBLISHED)
    file(CONFIGURE OUTPUT ${name}.manifest
      CONTENT "Implementation-Title: ${name}\nImplementation-Version: ${PROJECT_VERSION}\n")
    set(manifestFile ${CMAKE_CURRENT_BINARY_DIR}/${name}.manifest)
    set(manifest --manifest=${manifestFile})
  endif()
  # -options: that release 8 is old is known, and wanted.
  add_custom_command(
    OUTPUT ${jar}
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${classes}
    COMMAND ${TARNBOOSTER_JAVAC} --release ${release} -encoding UTF-8 -g -Xlint:all,-options -Werror -implicit:none
      ${arg_OPTIONS} -cp "${classpath}" -d ${classes} ${arg_SOURCES}
    COMMAND ${TARNBOOSTER_JAR} --create --file ${jar} --date=2024-01-01T00:00:00Z ${main} ${manifest}
      ${contents} -C ${classes} .
    DEPENDS ${arg_SOURCES} ${arg_CLASSPATH} ${arg_FILES} ${manifestFile}
    VERBATIM COMMENT "Building ${name}.jar")
  add_custom_target(${target} ALL DEPENDS ${jar})
  set_target_properties(${target} PROPERTIES TARN_JAR ${jar})

  if(arg_PUBLISHED)
    set(output ${CMAKE_CURRENT_BINARY_DIR}/${name})
    set(relative)
    foreach(source IN LISTS arg_SOURCES)
      file(RELATIVE_PATH source ${CMAKE_CURRENT_SOURCE_DIR} ${source})
      list(APPEND relative -C ${CMAKE_CURRENT_SOURCE_DIR} ${source})
    endforeach()
    add_custom_command(
      OUTPUT ${output}-sources.jar ${output}-javadoc.jar
      COMMAND ${TARNBOOSTER_JAR} --create --file ${output}-sources.jar --date=2024-01-01T00:00:00Z ${relative}
      COMMAND ${CMAKE_COMMAND} -E rm -rf ${output}.javadoc
      COMMAND ${TARNBOOSTER_JAVADOC} -quiet -notimestamp -Xdoclint:all -Werror -encoding UTF-8 --release ${release}
        -protected -cp "${classpath}" -d ${output}.javadoc ${arg_SOURCES}
      COMMAND ${TARNBOOSTER_JAR} --create --file ${output}-javadoc.jar --date=2024-01-01T00:00:00Z -C ${output}.javadoc .
      DEPENDS ${jar}
      VERBATIM COMMENT "Building ${name}-sources.jar and ${name}-javadoc.jar")
    add_custom_target(${target}_published DEPENDS ${output}-sources.jar ${output}-javadoc.jar)
  endif()
endfunction()
