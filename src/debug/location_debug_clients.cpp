// debug/location_debug_clients
