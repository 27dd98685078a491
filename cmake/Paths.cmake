# Where an installation has its files: below CMAKE_INSTALL_PREFIX, or anywhere by an absolute path.
# What is compiled in and what the installed files name comes from here. The program finds its
# libraries by its own place, so that an installation elsewhere (cmake --install --prefix) runs as well,
# with --config and --module-dir to tell it so.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set_property(CACHE CMAKE_INSTALL_PREFIX PROPERTY VALUE /usr/local/watchpost)
endif()

# watchpost_path(NAME DEFAULT DESCRIPTION): a directory to be set with -DWATCHPOST_NAME=, absolute in
# WATCHPOST_FULL_NAME.
function(watchpost_path name default description)
  set(WATCHPOST_${name} ${default} CACHE STRING "${description}")
  cmake_path(ABSOLUTE_PATH WATCHPOST_${name} BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX} NORMALIZE
    OUTPUT_VARIABLE full)
  set(WATCHPOST_FULL_${name} ${full} PARENT_SCOPE)
endfunction()
watchpost_path(PROGRAM_DIR bin "the program")
watchpost_path(LIBRARY_DIR lib "its own libraries")
watchpost_path(MODULE_DIR module "its modules")
watchpost_path(CONF_DIR conf "watchpost.properties")
watchpost_path(POLICY_DIR policy "policies")
watchpost_path(LOG_DIR log "log, reports and records")
watchpost_path(RUN_DIR /run/watchpost "what is gone with a reboot")
watchpost_path(DATA_DIR share/watchpost "the schema of policies")
watchpost_path(DOC_DIR share/doc/watchpost "examples")
watchpost_path(UNIT_DIR lib/systemd/system "the systemd unit")
watchpost_path(LOGROTATE_DIR share/watchpost/logrotate.d "the rotation of the report file")
watchpost_path(MAN_DIR share/man "manual pages")

file(RELATIVE_PATH libraries ${WATCHPOST_FULL_PROGRAM_DIR} ${WATCHPOST_FULL_LIBRARY_DIR})
file(RELATIVE_PATH libraries_of_modules ${WATCHPOST_FULL_MODULE_DIR} ${WATCHPOST_FULL_LIBRARY_DIR})
set(CMAKE_INSTALL_RPATH "$ORIGIN/${libraries}")
set(WATCHPOST_MODULE_RPATH "$ORIGIN/${libraries_of_modules}")

configure_file(sdk/Paths.h.in sdk/Paths.h @ONLY)
