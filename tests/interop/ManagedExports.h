// The managed exports as a managed caller sees them: C linkage, objects as
// untyped pointers, strings as char or UTF-16 pointers, out parameters as
// pointers. Only what the tests call is declared.
#pragma once

#include <cstdint>

#define QV_EXPORT(name) CSharp_ZelVarlokCSharp_##name

extern "C" {
using QvExceptionCallback = void (*)(const char* message);
using QvArgumentCallback = void (*)(const char* message, const char* paramName);
using QvStringCallback = char* (*)(const char* text);

void SWIGRegisterExceptionCallbacks_QorVarlok(QvExceptionCallback application, QvExceptionCallback arithmetic,
                                              QvExceptionCallback divideByZero, QvExceptionCallback indexOutOfRange,
                                              QvExceptionCallback invalidCast, QvExceptionCallback invalidOperation,
                                              QvExceptionCallback io, QvExceptionCallback nullReference,
                                              QvExceptionCallback outOfMemory, QvExceptionCallback overflow,
                                              QvExceptionCallback system);
void SWIGRegisterExceptionArgumentCallbacks_QorVarlok(QvArgumentCallback argument, QvArgumentCallback argumentNull,
                                                      QvArgumentCallback argumentOutOfRange);
void SWIGRegisterStringCallback_QorVarlok(QvStringCallback callback);

// The class.
void* QV_EXPORT(new_ZelVarlok)();
void QV_EXPORT(delete_ZelVarlok)(void* self);
unsigned int QV_EXPORT(ZelVarlok_InitializeCom)(void* self, int comType, const uint16_t* path);
void* QV_EXPORT(ZelVarlok_ConnectToPlcDevice)(void* self, const char* netIp, unsigned int* error);
void* QV_EXPORT(ZelVarlok_CreateTagsHandle__SWIG_0)(void* self, const char* name, unsigned int* error);
void* QV_EXPORT(ZelVarlok_CreateTagsHandle__SWIG_1)(void* self, void* names, unsigned int* error);
unsigned int QV_EXPORT(ZelVarlok_DeleteTagsHandle)(void* self, void* handle);
unsigned int QV_EXPORT(ZelVarlok_ReadTagList)(void* self, void* handle, void* values, unsigned int* count);
unsigned int QV_EXPORT(ZelVarlok_ReadTagList_INTERFACE_1)(void* self, void* handle, void* values, unsigned int* count);
unsigned int QV_EXPORT(ZelVarlok_WriteTagList)(void* self, void* handle, void* values);
unsigned int QV_EXPORT(ZelVarlok_WriteTagList2)(void* self, void* handle, void* data, unsigned int count);

// The symbol configuration.
void* QV_EXPORT(CreateSymbolConfigHandle)(const uint16_t* path, unsigned int* errorCode);
unsigned int QV_EXPORT(GetSymbolConfigToppestTagsDesc)(void* handle, void* descs, unsigned int* count);
void QV_EXPORT(ReleaseSymbolConfigHandle)(void* handle);

// The records.
void* QV_EXPORT(new_TagDesc)();
void QV_EXPORT(delete_TagDesc)(void* self);
char* QV_EXPORT(TagDesc_Name_get)(void* self);
void QV_EXPORT(TagDesc_Name_set)(void* self, const char* value);
char* QV_EXPORT(TagDesc_Comment_get)(void* self);
void QV_EXPORT(TagDesc_Comment_set)(void* self, const char* value);
int QV_EXPORT(TagDesc_Type_get)(void* self);
void QV_EXPORT(TagDesc_Type_set)(void* self, int value);
int QV_EXPORT(TagDesc_BaseType_get)(void* self);
int QV_EXPORT(TagDesc_MinValue_get)(void* self);
void* QV_EXPORT(TagDesc_TagsHandle_get)(void* self);
void* QV_EXPORT(new_TagVarValue)();
void QV_EXPORT(delete_TagVarValue)(void* self);
char* QV_EXPORT(TagVarValue_FullName_get)(void* self);
void QV_EXPORT(TagVarValue_FullName_set)(void* self, const char* value);
int QV_EXPORT(TagVarValue_Type_get)(void* self);
void QV_EXPORT(TagVarValue_Value_set)(void* self, void* value);
void* QV_EXPORT(TagVarValue_Value_get)(void* self);

// The vectors, by the operations the tests drive.
void* QV_EXPORT(new_StringVector__SWIG_0)();
void* QV_EXPORT(new_StringVector__SWIG_1)(void* other);
void* QV_EXPORT(new_StringVector__SWIG_2)(int capacity);
void QV_EXPORT(delete_StringVector)(void* self);
void QV_EXPORT(StringVector_Add)(void* self, const char* value);
void QV_EXPORT(StringVector_AddRange)(void* self, void* values);
unsigned int QV_EXPORT(StringVector_Contains)(void* self, const char* value);
int QV_EXPORT(StringVector_IndexOf)(void* self, const char* value);
int QV_EXPORT(StringVector_LastIndexOf)(void* self, const char* value);
unsigned int QV_EXPORT(StringVector_Remove)(void* self, const char* value);
char* QV_EXPORT(StringVector_getitemcopy)(void* self, int index);
char* QV_EXPORT(StringVector_getitem)(void* self, int index);
void QV_EXPORT(StringVector_setitem)(void* self, int index, const char* value);
void QV_EXPORT(StringVector_Insert)(void* self, int index, const char* value);
void QV_EXPORT(StringVector_InsertRange)(void* self, int index, void* values);
void QV_EXPORT(StringVector_RemoveAt)(void* self, int index);
void* QV_EXPORT(StringVector_GetRange)(void* self, int index, int count);
void QV_EXPORT(StringVector_RemoveRange)(void* self, int index, int count);
void QV_EXPORT(StringVector_Reverse__SWIG_0)(void* self);
void QV_EXPORT(StringVector_Reverse__SWIG_1)(void* self, int index, int count);
void QV_EXPORT(StringVector_SetRange)(void* self, int index, void* values);
void* QV_EXPORT(StringVector_Repeat)(const char* value, int count);
unsigned int QV_EXPORT(StringVector_size)(void* self);
unsigned int QV_EXPORT(StringVector_capacity)(void* self);
void QV_EXPORT(StringVector_reserve)(void* self, unsigned int n);

void* QV_EXPORT(new_VectorTagVarValue__SWIG_0)();
void* QV_EXPORT(new_VectorTagVarValue__SWIG_1)(void* other);
void* QV_EXPORT(new_VectorTagVarValue__SWIG_2)(int capacity);
void QV_EXPORT(delete_VectorTagVarValue)(void* self);
void QV_EXPORT(VectorTagVarValue_Add)(void* self, void* value);
void QV_EXPORT(VectorTagVarValue_AddRange)(void* self, void* values);
void* QV_EXPORT(VectorTagVarValue_getitemcopy)(void* self, int index);
void* QV_EXPORT(VectorTagVarValue_getitem)(void* self, int index);
void QV_EXPORT(VectorTagVarValue_setitem)(void* self, int index, void* value);
void QV_EXPORT(VectorTagVarValue_Insert)(void* self, int index, void* value);
void QV_EXPORT(VectorTagVarValue_InsertRange)(void* self, int index, void* values);
void QV_EXPORT(VectorTagVarValue_RemoveAt)(void* self, int index);
void* QV_EXPORT(VectorTagVarValue_GetRange)(void* self, int index, int count);
void QV_EXPORT(VectorTagVarValue_RemoveRange)(void* self, int index, int count);
void QV_EXPORT(VectorTagVarValue_Reverse__SWIG_1)(void* self, int index, int count);
void QV_EXPORT(VectorTagVarValue_SetRange)(void* self, int index, void* values);
void* QV_EXPORT(VectorTagVarValue_Repeat)(void* value, int count);
unsigned int QV_EXPORT(VectorTagVarValue_size)(void* self);
unsigned int QV_EXPORT(VectorTagVarValue_capacity)(void* self);
void QV_EXPORT(VectorTagVarValue_reserve)(void* self, const uint64_t* n);
}
