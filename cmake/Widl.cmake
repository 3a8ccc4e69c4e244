# Code generation from the interface definitions and the message table.

set(KY_WIDL_FLAGS -I/usr/include/wine/wine/windows -L${KY_WINE_TLB_DIR})

# widl writes its run time into every type library and ignores
# SOURCE_DATE_EPOCH, so it runs under a clock frozen at the last commit's time
# (in UTC, as it writes local time): the same commit gives the same bytes.
# Frozen takes -f: without it faketime starts the clock there and lets it run,
# and a run that crosses a second writes the next one.
find_program(KY_FAKETIME faketime)
if(NOT KY_FAKETIME)
  message(FATAL_ERROR "faketime not found (Debian package faketime; scripts/deps.sh installs it)")
endif()
execute_process(COMMAND git log -1 --format=%cd --date=format:%Y-%m-%d\ %H:%M:%S
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} OUTPUT_VARIABLE KY_SOURCE_TIME OUTPUT_STRIP_TRAILING_WHITESPACE
  RESULT_VARIABLE rc ERROR_QUIET)
if(NOT rc EQUAL 0 OR NOT KY_SOURCE_TIME)
  set(KY_SOURCE_TIME "2000-01-01 00:00:00")  # sources without their history
endif()
set(KY_WIDL_RUN env TZ=UTC ${KY_FAKETIME} -f ${KY_SOURCE_TIME} ${KY_WIDL})

# ky_widl(<idl> <basename>) generates <basename>.h, <basename>_i.c,
# <basename>_p.c, dlldata.c and <basename>.tlb in KY_GENERATED_DIR and sets
# KY_IDL_HEADER, KY_IDL_GUIDS, KY_IDL_PROXY, KY_IDL_DLLDATA and KY_IDL_TLB.
function(ky_widl idl base)
  set(out ${KY_GENERATED_DIR})
  # Named relative to the sources, so that no generated file names the folder.
  file(RELATIVE_PATH source ${PROJECT_SOURCE_DIR} ${idl})
  add_custom_command(
    OUTPUT ${out}/${base}.h ${out}/${base}_i.c ${out}/${base}_p.c ${out}/dlldata.c ${out}/${base}.tlb
    COMMAND ${KY_WIDL_RUN} ${KY_WIDL_FLAGS} -h -o ${out}/${base}.h ${source}
    COMMAND ${KY_WIDL_RUN} ${KY_WIDL_FLAGS} -u -o ${out}/${base}_i.c ${source}
    COMMAND ${KY_WIDL_RUN} ${KY_WIDL_FLAGS} -Oif -p -o ${out}/${base}_p.c ${source}
    COMMAND ${KY_WIDL_RUN} --dlldata-only -o ${out}/dlldata.c ${base}
    COMMAND ${KY_WIDL_RUN} ${KY_WIDL_FLAGS} -DKY_TYPELIB -t -o ${out}/${base}.tlb ${source}
    DEPENDS ${idl}
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    COMMENT "widl ${base}.idl"
    VERBATIM)
  set(KY_IDL_HEADER ${out}/${base}.h PARENT_SCOPE)
  set(KY_IDL_GUIDS ${out}/${base}_i.c PARENT_SCOPE)
  set(KY_IDL_PROXY ${out}/${base}_p.c PARENT_SCOPE)
  set(KY_IDL_DLLDATA ${out}/dlldata.c PARENT_SCOPE)
  set(KY_IDL_TLB ${out}/${base}.tlb PARENT_SCOPE)
endfunction()

# ky_windmc(<mc> <basename>) compiles a message table. windmc copies the line
# ends of its input into the messages, so it is fed a CR LF copy: every text
# then ends in CR LF whatever the checkout's line ends are.
function(ky_windmc mc base)
  set(out ${KY_GENERATED_DIR})
  add_custom_command(
    OUTPUT ${out}/${base}.h ${out}/${base}.rc ${out}/MSG00409.bin
    COMMAND sed -e "s/\\r$//" -e "s/$/\\r/" ${mc} > ${out}/${base}.crlf.mc
    COMMAND ${KY_WINDMC} -U -h ${out} -r ${out} ${out}/${base}.crlf.mc
    COMMAND ${CMAKE_COMMAND} -E rename ${out}/${base}.crlf.h ${out}/${base}.h
    COMMAND ${CMAKE_COMMAND} -E rename ${out}/${base}.crlf.rc ${out}/${base}.rc
    DEPENDS ${mc}
    COMMENT "windmc ${base}.mc"
    VERBATIM)
  set(KY_MC_HEADER ${out}/${base}.h PARENT_SCOPE)
  set(KY_MC_RC ${out}/${base}.rc PARENT_SCOPE)
endfunction()
