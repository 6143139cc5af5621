// The cluster's configuration library.
//
// The configuration is one XML file, $ZOR_HOME/etc/zor.conf, whose root
// element is <root>. Values are addressed by slash-separated paths from the
// root: a segment "a" selects the child element <a>, a segment "a@b" selects
// the child element <a name="b">. So "/root/resource/disk@fs1/parameters/
// mount/point" is <root><resource><disk name="fs1"><parameters><mount><point>.
//
// Policies are optional XML files $ZOR_HOME/etc/policy/NAME.xml of the same
// shape; their values lie beneath the configuration's own (a value missing
// from the configuration is looked up in the loaded policies, the last loaded
// first). See docs/configuration.md.
#pragma once

// Result codes.
#define ZOR_XMLERR_SUCCESS 0
#define ZOR_XMLERR_NOT_INIT 1
#define ZOR_XMLERR_NOT_LOAD 2
#define ZOR_XMLERR_NOTENOUGH_SIZE 3
#define ZOR_XMLERR_NOTEXIST_PATH 4
#define ZOR_XMLERR_NOTEXIST_VALUE 5
#define ZOR_XMLERR_INVALID_PATH 6
#define ZOR_XMLERR_INVALID_XML 7
#define ZOR_XMLERR_INVALID_HANDLE 8
#define ZOR_XMLERR_INVALID_CONTENTS 9
#define ZOR_XMLERR_OTHER 10

// Value types.
#define ZOR_XML_STRING 0  // the element's text, trimmed of surrounding white space
#define ZOR_XML_INT 1     // a decimal 32-bit signed integer, into an int (size 4)

// Each enumeration entry takes one slot of this many bytes.
#define ZOR_XML_ENUM_SLOT 256

// Start-up and shut-down, in this order: init, policies, config ... and back.
int xmllib_init(const char* type);
int xmllib_load_policy(const char* name);
int xmllib_load_config(void);
int xmllib_unload_config(void);
int xmllib_unload_policy(const char* name);
int xmllib_term(void);

// Reads the value at `path` into `value`, a buffer of *size bytes.
// String: the text with its terminator must fit, else ZOR_XMLERR_NOTENOUGH_SIZE
// with *size set to the size needed and nothing written. Integer: *size must
// be at least 4; text that is not a decimal 32-bit integer (overflow
// included) is ZOR_XMLERR_INVALID_CONTENTS. On success *size is the number of
// bytes written (terminator included for strings).
int xmllib_get_value(const char* path, int type, void* value, int* size);

// As xmllib_get_value, but a <server name="SERVER"> element at any level of
// the path may hold the rest of the path; for that server its value wins over
// the common one (the deepest such override wins). A null or empty server
// reads the common value.
int xmllib_get_srvsep_value(const char* server, const char* path, int type, void* value, int* size);

// Lists the `name` attribute of every element named by the last segment of
// `path` under its parent, in document order, one per 256-byte slot. Without
// a buffer, or with one too small, the answer is ZOR_XMLERR_NOTENOUGH_SIZE
// with *size the bytes needed; no entries at all is success with *size 0.
int xmllib_enum_value(const char* path, void* value, int* size);

// Alternate configurations: load a file by path, make it (or, with a null
// handle, the default configuration again) the current one, unload it.
int xmllib_load_pathconfig(const char* path, void** handle);
int xmllib_change_config(void* handle);
int xmllib_unload_pathconfig(void* handle);
