#ifndef TARVO_UTIL_WSFEV1_H
#define TARVO_UTIL_WSFEV1_H

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

inline constexpr char wsfev1_namespace[] = "http://ar.gov.afip.dif.FEV1/";

// The header line that names an operation, as AFIP's ASMX service wants it: quoted.
inline std::string wsfev1_soap_action(const std::string& operation)
{
    return "SOAPAction: \"" + std::string(wsfev1_namespace) + operation + "\"";
}

inline bool is_wsfev1_operation(const std::string& name)
{
    return std::find(std::begin(wsfev1_operations), std::end(wsfev1_operations), name) != std::end(wsfev1_operations);
}

#endif
