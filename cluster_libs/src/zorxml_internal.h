// What the configuration library's own tests look at, beyond its interface.
#pragma once

// A file changed less than this long ago is not indexed (default 2000 ms).
void zorxml_set_settle_ms(long long ms);

// Whether the default configuration was loaded from its index.
bool zorxml_config_from_index(void);
