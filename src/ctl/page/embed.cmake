# Puts the style and the script into the page, with their hashes into its content policy, and writes it as
# a literal of C++ when the build is configured.
set(page_dir ${CMAKE_CURRENT_LIST_DIR})
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
    ${page_dir}/page.html ${page_dir}/page.css ${page_dir}/page.js)

# "sha256-" and the hash in base64, as a content policy has it.
function(policy_hash text out)
    string(SHA256 hex "${text}")
    string(SUBSTRING ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/ 0 64 digits)
    set(base64)
    foreach(at RANGE 0 60 6)  # three bytes are four digits; the last two bytes are followed by zeros
        string(SUBSTRING "${hex}00" ${at} 6 part)
        foreach(shift 18 12 6 0)
            math(EXPR digit "(0x${part} >> ${shift}) & 63")
            string(SUBSTRING ${digits} ${digit} 1 digit)
            string(APPEND base64 ${digit})
        endforeach()
    endforeach()
    string(REGEX REPLACE ".$" "=" base64 ${base64})
    set(${out} sha256-${base64} PARENT_SCOPE)
endfunction()

file(READ ${page_dir}/page.css style)
file(READ ${page_dir}/page.js script)
policy_hash("${style}" style_hash)
policy_hash("${script}" script_hash)
file(READ ${page_dir}/page.html page)
foreach(part style_hash script_hash style script)
    string(REPLACE "@${part}@" "${${part}}" page "${page}")
endforeach()
file(CONFIGURE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/page.inc CONTENT "R\"page(@page@)page\"" @ONLY)
