# How everything is compiled for WebAssembly: no threads, the engine's own exceptions. Vectors of 16 bytes are an option of the whole module, which an
# engine without them refuses: they make a second module.
option(KEL_WEB_SIMD "Use WebAssembly's vectors of 16 bytes" ON)
target_compile_options(kel_build_flags INTERFACE -fwasm-exceptions)
target_link_options(kel_build_flags INTERFACE -fwasm-exceptions)
if(KEL_WEB_SIMD)
  target_compile_options(kel_build_flags INTERFACE -msimd128)
endif()
