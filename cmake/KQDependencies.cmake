# Every dependency comes from the system (Debian packages); nothing is fetched at build time.
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(nlohmann_json 3.10 REQUIRED)
pkg_check_modules(ICU REQUIRED IMPORTED_TARGET icu-i18n icu-uc)

# Shared by the web service and the XMPP core: TLS (and, for XMPP, SASL encodings and capability
# hashes), and libuuid (multipart boundaries, stanza ids).
find_package(OpenSSL 3 REQUIRED)
pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
# Web service client: HTTP(S) transport.
find_package(CURL 7.87 REQUIRED)
# XMPP core: libxml2 (stanzas, XPath), standalone Asio (sockets, event loop).
pkg_check_modules(LIBXML2 REQUIRED IMPORTED_TARGET libxml-2.0)
find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
add_library(kq_asio INTERFACE)
target_include_directories(kq_asio SYSTEM INTERFACE ${ASIO_INCLUDE_DIR})
target_compile_definitions(kq_asio INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED)
# ThreadSanitizer does not model stand-alone fences (GCC refuses them under -fsanitize=thread);
# Asio hands work between threads through mutex-guarded queues, so the TSan build drops its
# fences.
if(KQ_SANITIZE MATCHES "thread")
  target_compile_definitions(kq_asio INTERFACE ASIO_DISABLE_FENCED_BLOCK)
endif()
