/* The handles by which extension libraries refer to the engine's objects: pointers that only the
   engine dereferences. Plain C. */

#ifndef ZEPH_BASE_EXTENSIONHANDLES_H
#define ZEPH_BASE_EXTENSIONHANDLES_H

#ifdef __cplusplus
class File;
class LinkBuffer;
class SystemLibrary;
class Variable;
class VariableHash;
class VariableList;
class ZephVM;
#else
typedef struct File File;
typedef struct LinkBuffer LinkBuffer;
typedef struct SystemLibrary SystemLibrary;
typedef struct Variable Variable;
typedef struct VariableHash VariableHash;
typedef struct VariableList VariableList;
typedef struct ZephVM ZephVM;
#endif

typedef Variable* ZPVARIABLE;           /* a value of a script */
typedef VariableList* ZPVARIABLELIST;   /* a list of values */
typedef VariableHash* ZPVARIABLEHASH;   /* values by name and by position */
typedef ZephVM* ZPPROGRAM;              /* the running script */
typedef File* ZPFILE;                   /* an open file */
typedef LinkBuffer* ZPLINKBUFFER;       /* a text that grows */
typedef SystemLibrary* ZPSYSTEMLIBRARY; /* a shared library that the configuration names */

#endif
