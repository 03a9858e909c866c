include $(sort $(wildcard $(BR2_EXTERNAL_TAVOR_PATH)/tavor/*.mk))
