# Applies INFORMATION_API_SANITIZERS (e.g. "address,undefined" or "thread") to every target.
if(INFORMATION_API_SANITIZERS)
  add_compile_options(-fsanitize=${INFORMATION_API_SANITIZERS} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${INFORMATION_API_SANITIZERS})
endif()
