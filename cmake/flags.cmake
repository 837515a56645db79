# Compiler and linker flags of every target: the warnings of the gate, hardening, sanitizers.
add_compile_options(-Wall -Wextra -Wshadow -Wconversion -Werror)
add_compile_options(-fstack-protector-strong $<$<CONFIG:Release,RelWithDebInfo>:-D_FORTIFY_SOURCE=2>)
# Nobody replaces a function of a library by one of the same name.
add_compile_options(-fno-semantic-interposition)
add_link_options(-Wl,-z,relro -Wl,-z,now)

if(KEYVIEW_SANITIZE)
    # A finding ends the program, so that no test can pass over it.
    add_compile_options(
        -fsanitize=${KEYVIEW_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${KEYVIEW_SANITIZE})
    add_compile_definitions(KEYVIEW_SANITIZED)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        add_compile_options(-fsanitize-ignorelist=${CMAKE_CURRENT_LIST_DIR}/not_ours.txt)
    endif()
    if(KEYVIEW_SANITIZE MATCHES "address")
        # The addresses in a program's data are known when it is built: 57,000 in that of the tool, which
        # would be computed at each start.
        add_link_options($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-no-pie>)
        add_library(early-pages OBJECT ${CMAKE_CURRENT_LIST_DIR}/early_pages.c)
        target_compile_options(early-pages PRIVATE -fno-sanitize=all -fno-stack-protector)
        link_libraries(
            $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:$<TARGET_OBJECTS:early-pages>>)
    endif()
endif()

# Counters in files that are mapped, so that a process which is killed has counted, too, whatever its
# environment is.
if(KEYVIEW_COVERAGE)
    add_compile_options(-fprofile-instr-generate=${CMAKE_BINARY_DIR}/counters/%m%c.profraw
        -fcoverage-mapping "SHELL:-mllvm -runtime-counter-relocation")
    add_link_options(-fprofile-instr-generate)
endif()

# For what exports no types: a trace of calls shows its lines. To describe the types of the templates
# that it uses takes 40 % of its time.
macro(lines_as_debug_information)
    add_compile_options($<$<CONFIG:Release,RelWithDebInfo>:-g1>)
endmacro()

# For tests, which are compiled more often than run.
macro(compile_quickly)
    lines_as_debug_information()
    add_compile_options($<$<CONFIG:Release,RelWithDebInfo>:-O1>)
endmacro()

# A C program needs the sanitizers' part for C++, too, if its libraries do.
function(link_with_sanitizers target)
    if(KEYVIEW_SANITIZE)
        set_target_properties(${target} PROPERTIES LINKER_LANGUAGE CXX)
    endif()
endfunction()
