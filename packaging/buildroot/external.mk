include $(sort $(wildcard $(BR2_EXTERNAL_METADATA_LIB_PATH)/*/*.mk))
