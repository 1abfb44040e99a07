{ invoice: authorises the next Factura B of the samples and prints its number, CAE and QR address.

  Usage: invoice [WSAA_URL [CERTIFICATE [PASSWORD [SERVICE [SERVICE_URL [SAMPLES]]]]]]
  Settings left off come from TARVO_WSAA_URL, TARVO_CERTIFICATE, TARVO_PASSWORD, TARVO_SERVICE,
  TARVO_SERVICE_URL and TARVO_SAMPLES (default /usr/share/tarvoafip/samples). The exit status is
  0 approved, 20 rejected, or the library's result code. }
program invoice;

{$MODE DELPHI}
{$H+}

uses
  SysUtils, Classes, tarvoafip, tarvoafipinvoicing;

const
  Variables: array[1..6] of string = ('TARVO_WSAA_URL', 'TARVO_CERTIFICATE', 'TARVO_PASSWORD',
    'TARVO_SERVICE', 'TARVO_SERVICE_URL', 'TARVO_SAMPLES');
  Fev1 = 'http://ar.gov.afip.dif.FEV1/';

function Setting(Position: Integer): RawByteString;
begin
  if Position <= ParamCount then
    Result := ParamStr(Position)
  else
    Result := GetEnvironmentVariable(Variables[Position]);
  if (Position = 6) and (Result = '') then
    Result := '/usr/share/tarvoafip/samples';
end;

function Sample(const Name: string): RawByteString;
var
  Lines: TStringList;
begin
  Lines := TStringList.Create;
  try
    Lines.LoadFromFile(IncludeTrailingPathDelimiter(Setting(6)) + Name);
    Result := Lines.Text;
  finally
    Lines.Free;
  end;
end;

function Send(const Operation: string; const Request: RawByteString): RawByteString;
begin
  AddSOAPHeader(PAnsiChar(RawByteString('SOAPAction: "' + Fev1 + Operation + '"')));
  Result := SendSOAPChecked(Request);
end;

var
  Last: Int64;
  Request: RawByteString;
  Answer: TAuthorisation;
  Observation: TServiceMessage;
begin
  {$IFDEF TARVO_DYNAMIC}
  if not LoadTarvoAfip then
  begin
    WriteLn(ErrOutput, 'invoice: cannot load libtarvoafipdriver');
    Halt(69);
  end;
  {$ENDIF}
  SetWSAA(PAnsiChar(Setting(1)));
  SetWSAACredentials(PAnsiChar(Setting(2)), PAnsiChar(Setting(3)));
  SetWSAAService(PAnsiChar(Setting(4)));
  SetWSUrl(PAnsiChar(Setting(5)));
  try
    Last := ReadLastAuthorised(Send('FECompUltimoAutorizado', Sample('fe_comp_ultimo_autorizado.xml')));
    if Last < 0 then
    begin
      WriteLn(ErrOutput, 'invoice: FECompUltimoAutorizado gave no number');
      Halt(20);
    end;
    { The sample is numbered 1: it becomes the next number. }
    Request := StringReplace(Sample('fe_cae_solicitar.xml'), '>1</ar:CbteDesde>',
      '>' + IntToStr(Last + 1) + '</ar:CbteDesde>', []);
    Request := StringReplace(Request, '>1</ar:CbteHasta>', '>' + IntToStr(Last + 1) + '</ar:CbteHasta>', []);
    { A lost answer (result 14 or 15) must not be sent again blindly: ask FECompConsultar first,
      as tarvoafip_cli invoice does. }
    Answer := ReadAuthorisation(Send('FECAESolicitar', Request));
  except
    on Error: ETarvoAfip do
    begin
      WriteLn(ErrOutput, 'invoice: ', Error.Message);
      Halt(Error.Code);
    end;
  end;
  for Observation in Answer.Observaciones do
    WriteLn('Obs ', Observation.Code, ': ', Observation.Msg);
  for Observation in Answer.Errors do
    WriteLn('Err ', Observation.Code, ': ', Observation.Msg);
  if Answer.Resultado <> 'A' then
  begin
    WriteLn(ErrOutput, 'invoice: AFIP did not approve the voucher (Resultado ', Answer.Resultado, ')');
    Halt(20);
  end;
  WriteLn('CbteNro ', Answer.CbteNro);
  WriteLn('CAE ', Answer.CAE, ' due ', Answer.CAEFchVto);
  { The sample's voucher: CUIT 20111111112, point of sale 1, Factura B (6), 121.00 pesos to a final
    consumer (DocTipo 99, DocNro 0). }
  WriteLn('QR ', QrUrl(Answer.CbteFch, 20111111112, 1, 6, Answer.CbteNro, 12100, 'PES', '1', 99, 0,
    Answer.CAE));
end.
