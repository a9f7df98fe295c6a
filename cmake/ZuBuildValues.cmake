# Values that a vendor fixes when the library is built. They end up in
# build_values.h as string literals.
set(ZU_VENDOR_PREFIX "com.zubrant" CACHE STRING
    "Reverse-DNS prefix of service names, job labels and property lists")
set(ZU_KEXT_VENDOR_PREFIX "com.Zubrant" CACHE STRING
    "The same prefix as the kernel extensions' identifiers spell it")
set(ZU_PARENT_EPP_PREFIX "com.zubrant.epp" CACHE STRING
    "Prefix of the companion product's notification names")
set(ZU_PARENT_GROUP_ID "Q7RM42XK9T.com.zubrant.epp" CACHE STRING
    "Group container of the companion product")
set(ZU_UI_AGENT_LABEL "com.zubrant.agent_ui" CACHE STRING
    "Job label of the per-user UI agent")
set(ZU_DEVELOPER_ID_NAME "Zubrant, Inc." CACHE STRING
    "Organisation in the vendor's Developer ID")
set(ZU_DEVELOPER_ID_TEAM "Q7RM42XK9T" CACHE STRING
    "Team identifier in the vendor's Developer ID")
set(ZU_ANCHORS_DIRECTORY "/etc/zuhelper/anchors" CACHE PATH
    "Linux: certificates (PEM or DER, one a file) in which chains may end")
set(ZU_SOCKET_DIRECTORY "/run/zuhelper" CACHE PATH
    "Linux: directory of the server's socket")
set(ZU_NOTIFICATION_DIRECTORY "/run/zuhelper-notify" CACHE PATH
    "Linux: directory through which notifications travel")

# PSEMNAMLEN on macOS is 31, terminator included.
string(LENGTH "${ZU_VENDOR_PREFIX}.zuzuzu" zu_length)
if(zu_length GREATER 30)
  message(FATAL_ERROR "ZU_VENDOR_PREFIX: the semaphore name "
    "\"${ZU_VENDOR_PREFIX}.zuzuzu\" has ${zu_length} characters; "
    "macOS takes 30")
endif()
# sun_path has 108 bytes on Linux, terminator included; ".lock" goes behind.
string(LENGTH "${ZU_SOCKET_DIRECTORY}/${ZU_VENDOR_PREFIX}.agent_server"
       zu_length)
if(zu_length GREATER 100)
  message(FATAL_ERROR "ZU_SOCKET_DIRECTORY: the socket's path has "
    "${zu_length} characters; 100 are possible")
endif()
foreach(zu_value VENDOR_PREFIX KEXT_VENDOR_PREFIX PARENT_EPP_PREFIX
        PARENT_GROUP_ID UI_AGENT_LABEL DEVELOPER_ID_NAME DEVELOPER_ID_TEAM
        ANCHORS_DIRECTORY SOCKET_DIRECTORY NOTIFICATION_DIRECTORY)
  if(NOT ZU_${zu_value} MATCHES "^[^\"\\]+$")
    message(FATAL_ERROR "ZU_${zu_value} must be non-empty and free of "
                        "quotes and backslashes")
  endif()
endforeach()

configure_file(${PROJECT_SOURCE_DIR}/cmake/build_values.h.in
               ${PROJECT_BINARY_DIR}/generated/build_values.h @ONLY)
