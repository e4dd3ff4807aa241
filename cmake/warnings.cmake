# Warnings are errors on every compiler we ship with (g++, clang, mingw-w64).
function(velmora_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror -Wshadow -Wnon-virtual-dtor
                                           -Wold-style-cast -Wcast-align -Wunused -Woverloaded-virtual
                                           -Wpedantic -Wconversion -Wsign-conversion -Wnull-dereference
                                           -Wdouble-promotion -Wformat=2 -Wimplicit-fallthrough)
endfunction()
