# Debian packages of the build (cpack -G DEB, or scripts/package):
#   libkqvisitorcore1     the shared library (component runtime)
#   libkqvisitorcore-dev  headers, static library, CMake package, pkg-config file (dev)
#   kqvisitor-tools       kqvisitor-chat and kqvisitor-sandbox with their manual pages (tools)
# Each carries its changelog and copyright; dependencies come from dpkg-shlibdeps.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kqvisitorcore)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "KQVisitorCore maintainers <maintainers@users.noreply.c-seed-90dd461e.example>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(KQ_BUILD_APPS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://kqvisitor.example/")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkqvisitorcore1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# ldconfig runs through the trigger, as Debian wants for a shared library.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "visitor side of a website's live chat (library)
KQVisitorCore lets a program act as the visitor in a website's live chat with
a human operator: it identifies the website, registers the visitor, runs the
pre-chat check and carries the chat over XMPP multi-user chat or HTTP polling.

This package holds the shared library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libkqvisitorcore-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "libkqvisitorcore1 (= ${PROJECT_VERSION}), nlohmann-json3-dev (>= 3.10)")
set(CPACK_DEBIAN_DEV_DESCRIPTION "visitor side of a website's live chat (development files)
KQVisitorCore lets a program act as the visitor in a website's live chat with
a human operator, over XMPP multi-user chat or HTTP polling.

This package holds the headers, the static library, the CMake package
(find_package(KQVisitorCore)) and the pkg-config file.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kqvisitor-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
# Our own library is found in the build tree; the dependency on its package is written here.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/KQVisitorCore)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libkqvisitorcore1 (= ${PROJECT_VERSION}), prosody")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "visitor chat client and local chat service sandbox
kqvisitor-chat chats with a website's operator as a visitor from a terminal,
and calls the chat service's operations one by one.

kqvisitor-sandbox runs a local stand-in for the whole chat service (JSON and
SOAP services, file uploads, an XMPP server with operators, and an operator
console for a browser) for trying and testing host applications.")

# The changelog (compressed as Debian wants it) and copyright, in each package.
set(KQ_DEB_DOCS ${PROJECT_BINARY_DIR}/deb-docs)
file(MAKE_DIRECTORY ${KQ_DEB_DOCS})
add_custom_command(OUTPUT ${KQ_DEB_DOCS}/changelog.gz
  COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/packaging/changelog > ${KQ_DEB_DOCS}/changelog.gz
  DEPENDS ${PROJECT_SOURCE_DIR}/packaging/changelog VERBATIM)
add_custom_target(kq_deb_docs ALL DEPENDS ${KQ_DEB_DOCS}/changelog.gz)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${KQ_DEB_DOCS}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
