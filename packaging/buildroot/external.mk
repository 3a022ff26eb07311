include $(sort $(wildcard $(BR2_EXTERNAL_QOR_PATH)/package/*/*.mk))
