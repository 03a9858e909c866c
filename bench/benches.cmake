tavor_bench(micro_parse SOURCES micro_parse.cpp USES tavor_parse)
