# The JSON library as part of the programs. PkgConfig::jsoncpp, which has its headers, then stands for an archive: the
# system's or, as Debian has none, one made from the sources of Debian's shared library.

find_library(JSONCPP_ARCHIVE libjsoncpp.a DOC "The static JSON library; made from source without it")
if(JSONCPP_ARCHIVE)
    set(archive "${JSONCPP_ARCHIVE}")
else()
    execute_process(COMMAND "${PROJECT_SOURCE_DIR}/scripts/fetch-jsoncpp" COMMAND_ERROR_IS_FATAL ANY)
    set(folder "${PROJECT_SOURCE_DIR}/build-jsoncpp")
    set(archive vexprod_jsoncpp)
    add_library(${archive} STATIC
        "${folder}/src/lib_json/json_reader.cpp"
        "${folder}/src/lib_json/json_value.cpp"
        "${folder}/src/lib_json/json_writer.cpp")
    target_include_directories(${archive} PRIVATE "${folder}/include")
    target_compile_options(${archive} PRIVATE -w) # its warnings are its authors'
    vexprod_harden(${archive})
endif()
set_target_properties(PkgConfig::jsoncpp PROPERTIES INTERFACE_LINK_LIBRARIES "${archive}")
