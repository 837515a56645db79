# Optimizes a library as a whole, where the tool chain can: a fetch goes through many small functions
# of several files.
include(CheckIPOSupported)
check_ipo_supported(RESULT KEYVIEW_WHOLE_LIBRARY OUTPUT ignored LANGUAGES C CXX)

function(optimize_whole_library target)
    if(KEYVIEW_WHOLE_LIBRARY)
        set_target_properties(${target} PROPERTIES
            INTERPROCEDURAL_OPTIMIZATION_RELEASE ON
            INTERPROCEDURAL_OPTIMIZATION_RELWITHDEBINFO ON)
    endif()
endfunction()
