# RECVAULT_SANITIZE holds for everything in the build: a sanitizer that sees only a part of the program reports nonsense.

if(RECVAULT_SANITIZE)
    add_compile_options(-fsanitize=${RECVAULT_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${RECVAULT_SANITIZE})
endif()
