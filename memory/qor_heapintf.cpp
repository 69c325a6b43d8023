#include <qor/qor_heapintf.h>

qorHeapIntf::qorHeapIntf() {}

qorHeapIntf::~qorHeapIntf() {}

void qorHeapIntf::Minimize() {}

qorHeapCIntf::qorHeapCIntf() {}

qorHeapCIntf::~qorHeapCIntf() {}
