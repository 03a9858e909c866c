// debug/location_uart
