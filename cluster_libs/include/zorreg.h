// The cluster's registry library: small durable values per
// (resource type, resource name, key), kept under $ZOR_HOME/var/registry.
//
// A write is atomic and durable (temporary file, fsync, rename, fsync of the
// directory): a crash at any moment leaves the old value or the new one.
// A value never written reads as the empty string or 0, with success.
// Temporaries that a writer killed mid-write leaves are removed by the next
// write of the same resource once they are a minute old.
#pragma once

// Value types.
#define REG_TYPE_INT 1     // 4-byte int
#define REG_TYPE_STRING 2  // NUL-terminated text

// Result codes.
#define REG_SUCCESS 0
#define REG_ERR_NOTINIT 1       // reg_init was not called for this type
#define REG_ERR_INVALIDPARAM 2  // null, empty or over-long names, bad size or type
#define REG_ERR_NOTENOUGH 3     // the stored text does not fit the buffer
#define REG_ERR_IO 4            // the store could not be read or written
#define REG_ERR_CORRUPT 5       // the stored value is damaged
#define REG_ERR_TYPE 6          // the stored value has the other type
#define REG_ERR_UNSAFE 7        // a file or directory of the store is not root's alone: never read

int reg_init(const char* type);
int reg_get_value(const char* type, const char* rscname, const char* key, int valtype, int size, void* value);
// `flag` is 0, or REG_FLAG_BOOT for a value that means nothing after a
// reboot: replaced as atomically, but not waited for on the disk (a crash
// ends the boot it belongs to).
#define REG_FLAG_BOOT 1
int reg_set_value(const char* type, const char* rscname, const char* key, int valtype, int size,
                  const void* value, int flag);
// Removes a value: it reads as never written again. Removing one that is not
// there succeeds. `flag` as for reg_set_value.
int reg_delete_value(const char* type, const char* rscname, const char* key, int flag);
int reg_term(const char* type);
