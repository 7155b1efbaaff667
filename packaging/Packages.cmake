# Debian packages, made with `cpack -G DEB` in the build folder:
#   tarninventory   the agent folder (PREFIX/bin/tarninventory, PREFIX/data)
#   tarn-refserver  the reference server (PREFIX/bin, PREFIX/share/tarninventory), its systemd
#                   unit tarn-refserver.service, its system user and /var/lib/tarn-refserver
# Runtime dependencies come from dpkg-shlibdeps.

# The unit goes where systemd looks, whatever the prefix: only the package installs it
# (EXCLUDE_FROM_ALL keeps it out of a plain `cmake --install`).
configure_file(${CMAKE_CURRENT_LIST_DIR}/deb/tarn-refserver.service.in
  ${PROJECT_BINARY_DIR}/packaging/tarn-refserver.service @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/tarn-refserver.service
  DESTINATION /lib/systemd/system COMPONENT refserver EXCLUDE_FROM_ALL)
# The example settings are the administrator's to change: an upgrade keeps their edits.
configure_file(${CMAKE_CURRENT_LIST_DIR}/deb/scanner-conffiles.in
  ${PROJECT_BINARY_DIR}/packaging/scanner/conffiles @ONLY)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarninventory)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "tarninventory")
set(CPACK_PACKAGE_CONTACT "tarninventory maintainers <tarninventory@example.com>")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_SET_DESTDIR ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL scanner refserver)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)

set(CPACK_DEBIAN_SCANNER_PACKAGE_NAME tarninventory)
set(CPACK_COMPONENT_SCANNER_DESCRIPTION
  "Hardware and software inventory scanner of the desktop-management agent\n"
  "One run collects the computer's inventory and sends it to the management server.")
set(CPACK_DEBIAN_SCANNER_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/packaging/scanner/conffiles)

set(CPACK_DEBIAN_REFSERVER_PACKAGE_NAME tarn-refserver)
set(CPACK_COMPONENT_REFSERVER_DESCRIPTION
  "Reference management server for tarninventory\n"
  "Hands out resource ids, accepts inventory uploads into SQLite and shows them.")
# The maintainer scripts make the system user with useradd.
set(CPACK_DEBIAN_REFSERVER_PACKAGE_DEPENDS "passwd")
set(CPACK_DEBIAN_REFSERVER_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_LIST_DIR}/deb/refserver/postinst
  ${CMAKE_CURRENT_LIST_DIR}/deb/refserver/prerm
  ${CMAKE_CURRENT_LIST_DIR}/deb/refserver/postrm)

include(CPack)

if(TARN_TESTS)
  # The LaunchDaemon of the macOS package, read with the scanner's own property-list reader.
  add_executable(packaging_tests ${CMAKE_CURRENT_LIST_DIR}/launchdaemon_test.cpp)
  target_link_libraries(packaging_tests PRIVATE platform GTest::gtest GTest::gtest_main)
  target_compile_definitions(packaging_tests PRIVATE
    TARN_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
    TARN_DEFAULT_PREFIX="/opt/tarninventory"
    TARN_INSTALL_BINDIR="${CMAKE_INSTALL_BINDIR}")
  add_test(NAME packaging_tests COMMAND packaging_tests)

  # `cmake --install` into a fresh prefix: exactly the agent folder and the server, with their
  # modes; the server, moved, starts on the catalogue beside it.
  add_test(NAME install_layout COMMAND bash ${PROJECT_SOURCE_DIR}/tests/install_layout_test.sh
    ${PROJECT_BINARY_DIR})

  # Every shell script of the repository passes shellcheck.
  add_test(NAME shellcheck COMMAND bash ${PROJECT_SOURCE_DIR}/tests/shellcheck.sh)
  set_tests_properties(shellcheck PROPERTIES SKIP_RETURN_CODE 77)

  # Both packages installed into a fresh Debian 12 root, the scanner's upload landing on the
  # installed server. Needs root and debootstrap (skipped otherwise); not in sanitizer or fuzz
  # builds, whose programs need their runtime libraries.
  if(NOT TARN_SANITIZE AND NOT TARN_FUZZ)
    add_test(NAME deb_install COMMAND bash ${PROJECT_SOURCE_DIR}/tests/deb_install_test.sh
      ${PROJECT_BINARY_DIR} ${PROJECT_SOURCE_DIR} ${CMAKE_INSTALL_PREFIX})
    # cpack first builds what is out of date: never while another test runs the scanner.
    set_tests_properties(deb_install PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 1200
      RESOURCE_LOCK scanner)
  endif()
endif()
