// debug/location_uart_escape
