# The quib tool's sources but main.cpp, for the tool and for the fuzzer of its command line:
# every tools/quib/*.cpp, so that a new cmd_<name>.cpp needs no line in a build file.
file(GLOB QUIB_TOOL_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/*.cpp)
list(REMOVE_ITEM QUIB_TOOL_SOURCES ${CMAKE_CURRENT_LIST_DIR}/main.cpp)
find_package(CLI11 REQUIRED)
find_package(nlohmann_json 3 REQUIRED)
