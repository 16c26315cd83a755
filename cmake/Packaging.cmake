# Install layout and the Debian package.
#
#   bin/whittle
#   libexec/whittle/whittle-bom, whittle-copy, whittle-diskimage
#   share/man/man1/whittle.1.gz
#   share/bash-completion/completions/whittle
#   share/doc/whittle/changelog.gz, copyright
#
# whittle looks for its helpers in ../libexec/whittle relative to itself (driver/ToolPaths.cpp),
# so these two folders are fixed rather than taken from GNUInstallDirs, and an installed
# tree keeps working when it is moved.
install(TARGETS whittle RUNTIME DESTINATION bin)
foreach(helper whittle-bom whittle-copy whittle-diskimage)
  if(TARGET ${helper})
    install(TARGETS ${helper} RUNTIME DESTINATION libexec/whittle)
  endif()
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME whittle)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "the whittle developers")
set(CPACK_PACKAGE_CONTACT "${WHITTLE_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "strips firmware restore bundles")
set(CPACK_PACKAGE_DESCRIPTION
    "whittle writes a stripped copy of a firmware restore bundle (a folder, or a
disk image holding one) that keeps only what the named products and factory
variants need, as a folder, a disk image, a zip archive or a BOM file list.
Without a target it validates the request; listing modes answer build scripts
with XML property lists.")
if(WHITTLE_SANITIZE)
  string(APPEND CPACK_PACKAGE_DESCRIPTION
         "\nThis build carries AddressSanitizer and UndefinedBehaviorSanitizer checks\nand is meant for testing only.")
endif()

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${WHITTLE_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The shared libraries come from dpkg-shlibdeps; these are the programs that whittle and
# its helpers run (chmod is in coreutils, which every system has).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "7zip, zip, openssl")

include(CPack)
