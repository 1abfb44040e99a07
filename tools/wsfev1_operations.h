#ifndef TARVO_TOOLS_WSFEV1_OPERATIONS_H
#define TARVO_TOOLS_WSFEV1_OPERATIONS_H

#include <algorithm>
#include <iterator>
#include <string>

// Every operation of AFIP's electronic invoicing service WSFEv1; its SOAPAction is
// "http://ar.gov.afip.dif.FEV1/" followed by the name.
inline const char* const wsfev1_operations[] = {
    "FECAESolicitar", "FECompTotXRequest", "FEDummy", "FECompUltimoAutorizado", "FECompConsultar",
    "FECAEARegInformativo", "FECAEASolicitar", "FECAEASinMovimientoConsultar", "FECAEASinMovimientoInformar",
    "FECAEAConsultar", "FEParamGetCotizacion", "FEParamGetTiposTributos", "FEParamGetTiposMonedas",
    "FEParamGetTiposIva", "FEParamGetTiposOpcional", "FEParamGetTiposConcepto", "FEParamGetPtosVenta",
    "FEParamGetTiposCbte", "FEParamGetCondicionIvaReceptor", "FEParamGetTiposDoc", "FEParamGetTiposPaises",
    "FEParamGetActividades"};

inline bool is_wsfev1_operation(const std::string& name)
{
    return std::find(std::begin(wsfev1_operations), std::end(wsfev1_operations), name) != std::end(wsfev1_operations);
}

#endif
