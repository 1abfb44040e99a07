"""CAEA contingency in the simulator: a fortnight's life, day by day through --today, the simulator
restarted on each day from its --state file."""
import os
import tempfile
import unittest

import simulator_test as sim
from harness import Simulator

PERIOD = "<ar:Periodo>202607</ar:Periodo><ar:Orden>1</ar:Orden>"  # 2026-07-01 to 2026-07-15


def inform(point_of_sale, number, date, generated="20260701093000", caea="{caea}"):
    return sim.invoice(point_of_sale, operation="FECAEARegInformativo", CbteDesde=str(number), CbteFch=date, CAEA=caea,
                       CbteFchHsGen=generated)


def no_movement(point_of_sale, caea="{caea}"):
    return "<ar:PtoVta>%d</ar:PtoVta><ar:CAEA>%s</ar:CAEA>" % (point_of_sale, caea)


def consult(point_of_sale, number):
    return ("<ar:FeCompConsReq><ar:CbteTipo>6</ar:CbteTipo><ar:CbteNro>%d</ar:CbteNro><ar:PtoVta>%d</ar:PtoVta>"
            "</ar:FeCompConsReq>" % (number, point_of_sale))


# (today, operation, request, {answer path: value}); "{caea}" stands for the CAEA granted on 2026-06-26.
FORTNIGHT = [
    ("2026-06-25", "FECAEASolicitar", PERIOD, {"Errors/Err/Code": "15006", "ResultGet": None}),
    ("2026-06-26", "FECAEASolicitar", PERIOD.replace("202607", "202613"), {"Errors/Err/Code": "15007"}),
    ("2026-06-26", "FECAEASolicitar", PERIOD.replace("<ar:Orden>1", "<ar:Orden>3"), {"Errors/Err/Code": "15007"}),
    ("2026-06-26", "FECAEASolicitar", PERIOD, {"FchVigDesde": "20260701", "FchVigHasta": "20260715",
                                               "FchTopeInf": "20260723", "FchProceso": r"^20260626\d{6}$"}),
    ("2026-06-27", "FECAEASolicitar", PERIOD, {"Errors/Err/Code": "15008", "ResultGet": None}),
    ("2026-06-27", "FECAEAConsultar", PERIOD, {"CAEA": "{caea}", "FchTopeInf": "20260723"}),
    ("2026-07-16", "FECAEASolicitar", PERIOD.replace("<ar:Orden>1", "<ar:Orden>2"), {"ResultGet/Orden": "2"}),
    ("2026-07-16", "FECAEASolicitar", "<ar:Periodo>202606</ar:Periodo><ar:Orden>2</ar:Orden>", {"Errors/Err/Code": "15006"}),
    ("2026-07-10", "FECAEARegInformativo", inform(7, 1, "20260705"),
     {"FeCabResp/Resultado": "A", "FECAEADetResponse/CAEA": "{caea}", "Observaciones": None}),
    ("2026-07-10", "FECAEARegInformativo", inform(7, 1, "20260705"), {"Errors/Err/Code": "10016"}),
    ("2026-07-10", "FECAEARegInformativo", inform(8, 1, "20260716"), {"Obs/Code": "10016", "FeCabResp/Resultado": "R"}),
    ("2026-07-10", "FECAEARegInformativo", inform(8, 1, "20260630"), {"Obs/Code": "10016"}),
    ("2026-07-10", "FECAEARegInformativo", inform(8, 1, "20260701", generated=None), {"Obs/Code": "1440"}),
    ("2026-07-10", "FECAEARegInformativo", inform(8, 1, "20260701", generated="20260701250000"), {"Obs/Code": "1440"}),
    ("2026-07-10", "FECAEARegInformativo", inform(8, 1, "20260701", generated="20260701093060"), {"Obs/Code": "1440"}),
    ("2026-07-10", "FECAEARegInformativo", inform(8, 1, "20260701", caea="1" * 14), {"Errors/Err/Code": "602"}),
    ("2026-07-10", "FECAEARegInformativo", inform(3, 1, "20260701"), {"Errors/Err/Code": "10005"}),
    ("2026-07-10", "FECAESolicitar", sim.invoice(7, CbteDesde="2"), {"Errors/Err/Code": "10005"}),
    ("2026-07-23", "FECAEARegInformativo", inform(7, 2, "20260715"), {"FeCabResp/Resultado": "A"}),
    ("2026-07-20", "FECAEASinMovimientoInformar", no_movement(9), {"Resultado": "A", "Errors": None}),
    ("2026-07-20", "FECAEASinMovimientoInformar", no_movement(9), {"Resultado": "A"}),
    ("2026-07-20", "FECAEASinMovimientoInformar", no_movement(7), {"Resultado": "R", "Errors/Err/Code": "15010"}),
    ("2026-07-20", "FECAEASinMovimientoInformar", no_movement(9, "1" * 14), {"Errors/Err/Code": "602"}),
    ("2026-07-24", "FECAEARegInformativo", inform(7, 3, "20260715"), {"Errors/Err/Code": "15009"}),
    ("2026-07-24", "FECAEASinMovimientoInformar", no_movement(10), {"Errors/Err/Code": "15009"}),
    ("2026-07-24", "FECAEASinMovimientoConsultar", no_movement(0, ""), {"FECAEASinMov/PtoVta": "9",
                                                                        "FECAEASinMov/CAEA": "{caea}"}),
    ("2026-07-24", "FECAEASinMovimientoConsultar", no_movement(9), {"FECAEASinMov/PtoVta": "9"}),
    ("2026-07-24", "FECAEASinMovimientoConsultar", no_movement(0, "1" * 14), {"Errors/Err/Code": "602"}),
    ("2026-07-24", "FECompConsultar", consult(7, 1), {"EmisionTipo": "CAEA", "CodAutorizacion": "{caea}",
                                                      "CbteFch": "20260705", "FchVto": ""}),
    ("2026-07-24", "FECompUltimoAutorizado", "<ar:PtoVta>7</ar:PtoVta><ar:CbteTipo>6</ar:CbteTipo>", {"CbteNro": "2"}),
    ("2026-07-24", "FECompUltimoAutorizado", "<ar:PtoVta>1</ar:PtoVta><ar:CbteTipo>6</ar:CbteTipo>",
     {"CbteNro": "0", "Errors": None}),
]


class Caea(unittest.TestCase):
    def test_a_fortnight(self):
        with tempfile.TemporaryDirectory() as work:
            options = ("--state", os.path.join(work, "state.json"), "--caea-points-of-sale", "7,8,9,10", "--today")
            credentials, caea = None, None
            for today, operation, request, expected in FORTNIGHT:
                with Simulator(*options, today) as simulator:
                    if credentials is None:
                        ticket = sim.ticket_of(sim.login(simulator)[1])
                        credentials = (ticket.findtext("credentials/token"), ticket.findtext("credentials/sign"))
                    result = sim.fev1(simulator, operation, request.replace("{caea}", caea or ""), credentials)[1]
                    caea = caea or sim.text(result, "ResultGet/CAEA")
                    for path, value in expected.items():
                        node = result.find(".//" + "/".join("{%s}%s" % (sim.FEV1, step) for step in path.split("/")))
                        found = None if node is None else node.text or ""
                        if value is None:
                            self.assertIsNone(node, (today, operation, path))
                        else:
                            self.assertRegex(found or "", value.replace("{caea}", caea or "") if value.startswith("^") else
                                             "^%s$" % value.replace("{caea}", caea or ""), (today, operation, path, request))

if __name__ == "__main__":
    unittest.main()
