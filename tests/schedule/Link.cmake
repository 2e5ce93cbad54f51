target_link_libraries(test_${name} PRIVATE taskschd ole32 oleaut32 uuid)
