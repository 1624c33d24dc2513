# Understanding commands, and the filter table that they change.
add_library(rlv-table STATIC
  answers.cpp
  command.cpp
  describe.cpp
  protocols.cpp
  rule-words.cpp
  simulated-table.cpp)
target_link_libraries(rlv-table PUBLIC platform-headers)
