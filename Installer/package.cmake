# Windows Installer packages of the product, made with wixl:
#   omk_package_file(name ...)          a file the package installs
#   omk_msi_package(target version dir) the package of a version, <dir>/Orlemark-RulesProcessor-<version>-x64.msi
# Both are worked out at the end of the configuration, so the list may name
# files of targets defined anywhere in the tree, or not defined yet.

# Cache entries, so that the deferred calls see them too.
set(OMK_PACKAGE_NAME Orlemark-RulesProcessor CACHE INTERNAL "")
# Fixed for good: every version of the product upgrades every other.
set(OMK_UPGRADE_CODE 965DBB79-5D70-4BC0-8594-497852F60F39 CACHE INTERNAL "")

find_program(OMK_WIXL wixl REQUIRED)
find_program(OMK_MSIBUILD msibuild REQUIRED)
find_program(OMK_OSSLSIGNCODE osslsigncode REQUIRED)

set(OMK_CODESIGN_ARGS "" CACHE STRING
    "osslsigncode options naming the certificate that signs the package and its files (empty: the build's test certificate)")

set_property(GLOBAL PROPERTY OMK_PACKAGE_SOURCE_DIR ${CMAKE_CURRENT_LIST_DIR})
set_property(GLOBAL PROPERTY OMK_PACKAGE_WORK_DIR ${CMAKE_CURRENT_BINARY_DIR})

# omk_package_file(name [FOLDER sub] [FROM path] [RULE_PLUGIN id | ACTION_PLUGIN id] [WITH fragment])
# `name` is a file of build/bin made by the target of that name without its
# extension, or put there by the configuration; a name this build makes in
# neither way is left out with a note. FOLDER installs it into INSTALLDIR\sub,
# FROM takes it from elsewhere, RULE_PLUGIN and ACTION_PLUGIN register it under
# the product's plugin keys, WITH adds the wixl elements of a fragment file to
# its component.
function(omk_package_file name)
  cmake_parse_arguments(ARG "" "FOLDER;FROM;RULE_PLUGIN;ACTION_PLUGIN;WITH" "" ${ARGN})
  if(ARG_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "omk_package_file(${name}): unknown arguments ${ARG_UNPARSED_ARGUMENTS}")
  endif()
  set(plugin "")
  if(ARG_RULE_PLUGIN)
    set(plugin "RulePlugin\\${ARG_RULE_PLUGIN}")
  elseif(ARG_ACTION_PLUGIN)
    set(plugin "ActionPlugin\\${ARG_ACTION_PLUGIN}")
  endif()
  set(with "")
  if(ARG_WITH)
    get_filename_component(with ${ARG_WITH} ABSOLUTE)
  endif()
  set_property(GLOBAL APPEND PROPERTY OMK_PACKAGE_FILES ${name})
  set_property(GLOBAL PROPERTY OMK_PACKAGE_${name} "${ARG_FOLDER}" "${ARG_FROM}" "${plugin}" "${with}")
endfunction()

# omk_msi_package(target version dir [ALL]): a custom target making the package.
function(omk_msi_package target version dir)
  get_property(scheduled GLOBAL PROPERTY OMK_PACKAGE_FILES_SCHEDULED)
  if(NOT scheduled)
    set_property(GLOBAL PROPERTY OMK_PACKAGE_FILES_SCHEDULED 1)
    cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL _omk_package_files)
  endif()
  # Deferred arguments are expanded when the call runs: put the values in now.
  cmake_language(EVAL CODE
    "cmake_language(DEFER DIRECTORY [[${CMAKE_SOURCE_DIR}]] CALL _omk_msi_package [[${target}]] [[${version}]] [[${dir}]] ${ARGN})")
endfunction()

# Stages every listed file (executables and DLLs stripped of debug information
# and signed) and writes the package source with their components.
function(_omk_package_files)
  get_property(source GLOBAL PROPERTY OMK_PACKAGE_SOURCE_DIR)
  get_property(work GLOBAL PROPERTY OMK_PACKAGE_WORK_DIR)
  get_property(files GLOBAL PROPERTY OMK_PACKAGE_FILES)
  _omk_codesign_args(sign signDepends targets)
  set(stage ${work}/stage)
  set(staged "")
  set(refs "")
  set(folders "")
  foreach(name IN LISTS files)
    get_property(entry GLOBAL PROPERTY OMK_PACKAGE_${name})
    list(GET entry 0 folder)
    list(GET entry 1 from)
    list(GET entry 2 plugin)
    list(GET entry 3 with)
    get_filename_component(base ${name} NAME_WE)
    set(depends "")
    if(from)
      set(input ${from})
    else()
      set(input ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${name})
      if(TARGET ${base})
        list(APPEND targets ${base})
        set(depends ${base})
      endif()
    endif()
    if(NOT depends AND NOT EXISTS ${input})
      message(STATUS "Package: ${name} is not made by this build, left out")
      continue()
    endif()

    set(output ${stage}/${name})
    set(source_path "$(var.StageDir)/${name}")
    if(folder)
      set(output ${stage}/${folder}/${name})
      set(source_path "$(var.StageDir)/${folder}/${name}")
    endif()
    if(name MATCHES "\\.(exe|dll)$")
      add_custom_command(OUTPUT ${output}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${stage}/${folder}
        COMMAND ${CMAKE_COMMAND} -E rm -f ${output}
        COMMAND ${CMAKE_STRIP} --strip-all -o ${output}.unsigned ${input}
        COMMAND ${OMK_OSSLSIGNCODE} sign ${sign} -h sha256 -n "Orlemark Rules Processor"
                -in ${output}.unsigned -out ${output} > /dev/null
        COMMAND ${CMAKE_COMMAND} -E rm -f ${output}.unsigned
        DEPENDS ${input} ${depends} ${signDepends}
        COMMENT "Stripping and signing ${name} for the package"
        VERBATIM)
    else()
      add_custom_command(OUTPUT ${output}
        COMMAND ${CMAKE_COMMAND} -E copy ${input} ${output}
        DEPENDS ${input} ${depends}
        VERBATIM)
    endif()
    list(APPEND staged ${output})

    # The file's MSI identifier (letters, digits, '_' and '.'): its name where
    # it can be, so that product.wxs.in can name the service and the tool.
    string(REGEX REPLACE "[^A-Za-z0-9_.]" "_" id "${folder}.${name}")
    string(REGEX REPLACE "^\\." "" id "${id}")
    set(xml "              <Component Id=\"C_${id}\" Guid=\"*\" Win64=\"yes\">\n")
    string(APPEND xml "                <File Id=\"${id}\" Name=\"${name}\" Source=\"${source_path}\" KeyPath=\"yes\"/>\n")
    if(plugin)
      string(APPEND xml "                <RegistryValue Root=\"HKLM\" Key=\"Software\\Varn Inc.\\Orlemark\\${plugin}\""
                        " Name=\"DllPath\" Type=\"string\" Value=\"[#${id}]\"/>\n")
    endif()
    if(with)
      file(READ ${with} fragment)
      string(APPEND xml "${fragment}")
      set_property(DIRECTORY ${CMAKE_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${with})
    endif()
    string(APPEND xml "              </Component>\n")
    set(key "${folder}.")  # never empty, unlike the list element of INSTALLDIR itself
    if(NOT key IN_LIST folders)
      list(APPEND folders "${key}")
    endif()
    string(APPEND "components_${key}" "${xml}")
    string(APPEND refs "      <ComponentRef Id=\"C_${id}\"/>\n")
  endforeach()

  set(OMK_PACKAGE_COMPONENTS "")
  foreach(key IN LISTS folders)
    if(key STREQUAL ".")
      string(APPEND OMK_PACKAGE_COMPONENTS "${components_.}")
    else()
      string(REGEX REPLACE "\\.$" "" folder "${key}")
      string(MAKE_C_IDENTIFIER "${folder}" folderId)
      string(APPEND OMK_PACKAGE_COMPONENTS "            <Directory Id=\"INSTALLDIR_${folderId}\" Name=\"${folder}\">\n"
                                           "${components_${key}}            </Directory>\n")
    endif()
  endforeach()
  set(OMK_PACKAGE_COMPONENT_REFS "${refs}")
  configure_file(${source}/product.wxs.in ${work}/product.wxs @ONLY)

  add_custom_target(OmkPackageFiles DEPENDS ${staged})
  if(targets)
    add_dependencies(OmkPackageFiles ${targets})
  endif()
  set_property(GLOBAL PROPERTY OMK_PACKAGE_STAGED ${staged})
endfunction()

function(_omk_msi_package target version dir)
  get_property(work GLOBAL PROPERTY OMK_PACKAGE_WORK_DIR)
  get_property(staged GLOBAL PROPERTY OMK_PACKAGE_STAGED)
  _omk_codesign_args(sign signDepends signTargets)
  # One product code per version: the same version installed again is a repair.
  string(UUID code NAMESPACE ${OMK_UPGRADE_CODE} NAME "${OMK_PACKAGE_NAME} ${version}" TYPE SHA1 UPPER)
  set(msi ${dir}/${OMK_PACKAGE_NAME}-${version}-x64.msi)
  add_custom_command(OUTPUT ${msi}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${dir}
    COMMAND ${CMAKE_COMMAND} -E rm -f ${msi} ${msi}.unsigned
    # (wixl takes relative source paths only.)
    COMMAND ${OMK_WIXL} -a x64 -D Version=${version} -D ProductCode={${code}} -D StageDir=stage
            -o ${msi}.unsigned product.wxs
    # wixl writes deferred custom actions only: mark the rollback ones
    # (type 18 file, 0x40 ignore result, 0x100 rollback, 0x400 in script, 0x800 no impersonation).
    COMMAND ${OMK_MSIBUILD} ${msi}.unsigned
            -q "UPDATE `CustomAction` SET `Type` = 3410 WHERE `Action` = 'OmkUnregisterOnRollback'"
            -q "UPDATE `CustomAction` SET `Type` = 3410 WHERE `Action` = 'OmkReregisterOnRollback'"
    COMMAND ${OMK_OSSLSIGNCODE} sign ${sign} -h sha256 -n "Orlemark Rules Processor ${version}"
            -in ${msi}.unsigned -out ${msi} > /dev/null
    COMMAND ${CMAKE_COMMAND} -E rm -f ${msi}.unsigned
    DEPENDS ${work}/product.wxs ${staged} ${signDepends}
    WORKING_DIRECTORY ${work}
    COMMENT "Packing and signing ${OMK_PACKAGE_NAME}-${version}-x64.msi"
    VERBATIM)
  if("ALL" IN_LIST ARGN)
    add_custom_target(${target} ALL DEPENDS ${msi})
  else()
    add_custom_target(${target} DEPENDS ${msi})
  endif()
  # For generator expressions elsewhere: $<TARGET_PROPERTY:OmkPackage,OMK_PACKAGE_FILE>.
  get_filename_component(name ${msi} NAME)
  set_target_properties(${target} PROPERTIES OMK_PACKAGE_FILE ${msi} OMK_PACKAGE_FILE_NAME ${name})
  add_dependencies(${target} OmkPackageFiles ${signTargets})
endfunction()

# The osslsigncode options of the signing certificate, the files they name and
# the targets that make those files.
function(_omk_codesign_args argsVar filesVar targetsVar)
  if(OMK_CODESIGN_ARGS)
    set(${argsVar} ${OMK_CODESIGN_ARGS} PARENT_SCOPE)
    set(${filesVar} "" PARENT_SCOPE)
    set(${targetsVar} "" PARENT_SCOPE)
  else()
    set(dir ${CMAKE_BINARY_DIR}/RuleProcessing/Plugins/signing)
    set(${argsVar} -certs ${dir}/chain.pem -key ${dir}/signer.key PARENT_SCOPE)
    set(${filesVar} ${dir}/chain.pem ${dir}/signer.key PARENT_SCOPE)
    set(${targetsVar} OmkTestSigning PARENT_SCOPE)
  endif()
endfunction()
