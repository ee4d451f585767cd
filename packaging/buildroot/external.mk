include $(sort $(wildcard $(BR2_EXTERNAL_QUELLON_PATH)/package/*/*.mk))
