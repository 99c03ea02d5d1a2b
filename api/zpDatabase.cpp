// The functions for database libraries. Tested in tests/base/database/ExternalDatabaseTest.cpp and
// tests/api/zpDatabaseTest.cpp.

#include "api/zeph.h"
#include "base/database/ExternalDatabase.h"

void zpDatabase_SetData(ZPDATABASE database, void* data) {
  database->SetData(data);
}
void* zpDatabase_data(ZPDATABASE database) {
  return database->data();
}
ZPDATABASEVIEW zpDatabase_AddView(ZPDATABASE database, const char* name, int length, void* data) {
  return database->Add_View(name, length, data);
}
void zpDatabase_SetPrimaryView(ZPDATABASE database, ZPDATABASEVIEW view) {
  database->SetPrimaryView(view);
}
ZPPROGRAM zpDatabase_Program(ZPDATABASE database) {
  return database->program();
}

ZPDATABASE zpDatabaseView_Database(ZPDATABASEVIEW view) {
  return view->external_database();
}
void zpDatabaseView_SetData(ZPDATABASEVIEW view, void* data) {
  view->SetData(data);
}
void* zpDatabaseView_data(ZPDATABASEVIEW view) {
  return view->data();
}
void zpDatabaseView_Clear(ZPDATABASEVIEW view) {
  view->Clear();
}
ZPDATABASEVARIABLE zpDatabaseView_AddVariable(ZPDATABASEVIEW view, const char* name, int length,
                                              void* data) {
  return view->Add_Variable(name, length, data);
}
int zpDatabaseView_Commit(ZPDATABASEVIEW view) {
  return view->Commit();
}
void zpDatabaseView_SetDirty(ZPDATABASEVIEW view) {
  view->SetDirty(1);
}
ZPPROGRAM zpDatabaseView_Program(ZPDATABASEVIEW view) {
  return view->program();
}

ZPDATABASEVIEW zpDatabaseVariable_DatabaseView(ZPDATABASEVARIABLE variable) {
  return variable->view();
}
void zpDatabaseVariable_SetData(ZPDATABASEVARIABLE variable, void* data) {
  variable->SetData(data);
}
void* zpDatabaseVariable_data(ZPDATABASEVARIABLE variable) {
  return variable->data();
}
void zpDatabaseVariable_SetDirty(ZPDATABASEVARIABLE variable, int dirty) {
  variable->SetDirty(dirty);
}
