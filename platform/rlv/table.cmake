# Understanding commands, and the filter table that they change.
pkg_check_modules(LIBMNL REQUIRED IMPORTED_TARGET GLOBAL libmnl)
pkg_check_modules(LIBNFTNL REQUIRED IMPORTED_TARGET libnftnl)

add_library(rlv-table STATIC
  answers.cpp
  command.cpp
  describe.cpp
  kernel-table.cpp
  netlink.cpp
  protocols.cpp
  rule-expressions.cpp
  rule-words.cpp
  simulated-table.cpp
  transaction.cpp
  xtables-info.cpp)
target_link_libraries(rlv-table PUBLIC platform-headers PRIVATE PkgConfig::LIBNFTNL PkgConfig::LIBMNL)
