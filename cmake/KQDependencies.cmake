# Every dependency comes from the system (Debian packages); nothing is fetched at build time.
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(nlohmann_json 3.10 REQUIRED)
pkg_check_modules(ICU REQUIRED IMPORTED_TARGET icu-i18n icu-uc)

# Web service client: HTTP(S) transport, the TLS trust store handed to it, multipart boundaries.
find_package(CURL 7.87 REQUIRED)
find_package(OpenSSL 3 REQUIRED)
pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
