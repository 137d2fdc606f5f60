# What must hold of the compiled kernels and cannot be seen in their results on one machine.
# Only optimised builds promise it: without inlining, helpers become symbols of their own.
find_program(OBJDUMP objdump REQUIRED)
find_program(NM nm REQUIRED)

# Kinds of kernels with fused multiply-adds: dense matrices, sums of products, circuits by rounding,
# and those that take squared magnitudes, which are defined as fused. Exact gates must have none.
set(may_fuse "^pblinalg_(fused|loading|norm|outer|pauli|reversal|rounding)_")
get_property(kernels GLOBAL PROPERTY PBLINALG_KERNELS)
set(exact_kernels ${kernels})
set(fused_kernels ${kernels})
list(FILTER exact_kernels EXCLUDE REGEX ${may_fuse})
list(FILTER fused_kernels INCLUDE REGEX ${may_fuse})
foreach(list kernels exact_kernels fused_kernels)
    list(TRANSFORM ${list} REPLACE "(.+)" "$<TARGET_OBJECTS:\\1>")
endforeach()

function(pblinalg_add_object_code_test name check)
    add_test(NAME object_code.${name}
        COMMAND ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/check_objects.sh ${check} ${ARGN}
        COMMAND_EXPAND_LISTS)
    set_tests_properties(object_code.${name} PROPERTIES
        ENVIRONMENT "OBJDUMP=${OBJDUMP};NM=${NM}")
endfunction()

pblinalg_add_object_code_test(ExactKernelsAreUnfused unfused ${exact_kernels})
pblinalg_add_object_code_test(KernelsShareNoCode private ${kernels})

# The checks see what they look for: the fused kernels are fused, and ordinary code shares its
# templates with the rest of the program.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64|amd64")
    pblinalg_add_object_code_test(FusedKernelsAreFused unfused ${fused_kernels})
    set_tests_properties(object_code.FusedKernelsAreFused PROPERTIES
        PASS_REGULAR_EXPRESSION "fuses: vfmadd")
endif()
pblinalg_add_object_code_test(OrdinaryCodeIsShared private $<TARGET_OBJECTS:pblinalg_core>)
set_tests_properties(object_code.OrdinaryCodeIsShared PROPERTIES
    PASS_REGULAR_EXPRESSION "shares: [^\n]*std::")

add_test(NAME object_code.ExportsAreThoseListed
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/check_exports.sh $<TARGET_FILE:pblinalg>)
set_tests_properties(object_code.ExportsAreThoseListed PROPERTIES ENVIRONMENT "NM=${NM}")
