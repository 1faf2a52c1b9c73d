#ifndef KESA_CORE_RESPONSE_HANDLERS_H
#define KESA_CORE_RESPONSE_HANDLERS_H

#include <kesa/responsehandlers/DoOnEachResponseHandler.h>
#include <kesa/responsehandlers/FilteringResponseHandler.h>
#include <kesa/responsehandlers/FuncResponseHandler.h>
#include <kesa/responsehandlers/MappingResponseHandler.h>

#endif
