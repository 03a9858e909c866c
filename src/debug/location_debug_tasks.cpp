// debug/location_debug_tasks
