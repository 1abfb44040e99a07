{ Reading WSFEv1's invoicing answers and making AFIP's QR address (RG 4892/2020), for Free Pascal.

  ReadAuthorisation takes a FECAESolicitar answer as SendSOAPChecked returns it and gives Resultado,
  the voucher's number and date, CAE, CAEFchVto, the observations (Obs) and the errors (Err).
  ReadLastAuthorised gives CbteNro of a FECompUltimoAutorizado answer. Elements are matched by
  local name, whatever their prefix. QrUrl gives the address to print as the voucher's QR code.
  Uses the FCL's DOM (fcl-xml) and base64 units. }
unit tarvoafipinvoicing;

{$MODE DELPHI}
{$H+}

interface

uses
  SysUtils, Classes, DOM, XMLRead, base64;

type
  TServiceMessage = record
    Code: Int64;
    Msg: UTF8String;
  end;
  TServiceMessages = array of TServiceMessage;

  TAuthorisation = record
    Found: Boolean;      { False: the text holds no FECAESolicitarResult (not XML, a SOAP fault) }
    Resultado: string;   { A, R or P }
    CbteNro: Int64;
    CbteFch: string;     { yyyymmdd }
    CAE: string;
    CAEFchVto: string;
    Observaciones: TServiceMessages;
    Errors: TServiceMessages;
  end;

function ReadAuthorisation(const Answer: RawByteString): TAuthorisation;
{ -1 when the answer holds no number (errors, not XML). }
function ReadLastAuthorised(const Answer: RawByteString): Int64;

{ 'https://www.afip.gob.ar/fe/qr/?p=' and the Base64 of the voucher's JSON. Fecha as yyyymmdd;
  Importe in cents; Ctz as a decimal text, e.g. '1'; CodAut the CAE's digits. }
function QrUrl(const Fecha: string; Cuit: Int64; PtoVta, TipoCmp: Integer; NroCmp: Int64;
  ImporteCents: Int64; const Moneda, Ctz: string; TipoDocRec: Integer; NroDocRec: Int64;
  const CodAut: string): string;

implementation

function LocalName(Node: TDOMNode): string;
var
  Name: string;
begin
  Name := UTF8Encode(Node.NodeName);
  Result := Copy(Name, Pos(':', Name) + 1, Length(Name));
end;

function Child(Parent: TDOMNode; const Name: string): TDOMNode;
begin
  Result := nil;
  if Parent = nil then
    Exit;
  Result := Parent.FirstChild;
  while (Result <> nil) and not ((Result.NodeType = ELEMENT_NODE) and (LocalName(Result) = Name)) do
    Result := Result.NextSibling;
end;

function Descendant(Root: TDOMNode; const Name: string): TDOMNode;
var
  Node: TDOMNode;
begin
  Result := nil;
  Node := Root.FirstChild;
  while (Node <> nil) and (Result = nil) do
  begin
    if (Node.NodeType = ELEMENT_NODE) and (LocalName(Node) = Name) then
      Result := Node
    else
      Result := Descendant(Node, Name);
    Node := Node.NextSibling;
  end;
end;

function TextOf(Parent: TDOMNode; const Name: string): string;
var
  Node: TDOMNode;
begin
  Node := Child(Parent, Name);
  if Node = nil then
    Result := ''
  else
    Result := Trim(UTF8Encode(Node.TextContent));
end;

function Messages(List: TDOMNode): TServiceMessages;
var
  Item: TDOMNode;
begin
  SetLength(Result, 0);
  if List = nil then
    Exit;
  Item := List.FirstChild;
  while Item <> nil do
  begin
    if Item.NodeType = ELEMENT_NODE then
    begin
      SetLength(Result, Length(Result) + 1);
      Result[High(Result)].Code := StrToInt64Def(TextOf(Item, 'Code'), 0);
      Result[High(Result)].Msg := TextOf(Item, 'Msg');
    end;
    Item := Item.NextSibling;
  end;
end;

{ The parsed answer, or nil when it is not XML. }
function Parse(const Answer: RawByteString): TXMLDocument;
var
  Stream: TStringStream;
begin
  Result := nil;
  Stream := TStringStream.Create(Answer);
  try
    try
      ReadXMLFile(Result, Stream);
    except
      on EXMLReadError do
        Result := nil;
    end;
  finally
    Stream.Free;
  end;
end;

function ReadAuthorisation(const Answer: RawByteString): TAuthorisation;
var
  Document: TXMLDocument;
  Found, Detail: TDOMNode;
begin
  Result := Default(TAuthorisation);
  Document := Parse(Answer);
  if Document = nil then
    Exit;
  try
    Found := Descendant(Document, 'FECAESolicitarResult');
    if Found = nil then
      Exit;
    Result.Found := True;
    Detail := Child(Child(Found, 'FeDetResp'), 'FECAEDetResponse');
    Result.Resultado := TextOf(Detail, 'Resultado');
    if Result.Resultado = '' then
      Result.Resultado := TextOf(Child(Found, 'FeCabResp'), 'Resultado');
    Result.CbteNro := StrToInt64Def(TextOf(Detail, 'CbteDesde'), 0);
    Result.CbteFch := TextOf(Detail, 'CbteFch');
    Result.CAE := TextOf(Detail, 'CAE');
    Result.CAEFchVto := TextOf(Detail, 'CAEFchVto');
    Result.Observaciones := Messages(Child(Detail, 'Observaciones'));
    Result.Errors := Messages(Child(Found, 'Errors'));
  finally
    Document.Free;
  end;
end;

function ReadLastAuthorised(const Answer: RawByteString): Int64;
var
  Document: TXMLDocument;
  Found: TDOMNode;
begin
  Result := -1;
  Document := Parse(Answer);
  if Document = nil then
    Exit;
  try
    Found := Descendant(Document, 'FECompUltimoAutorizadoResult');
    if (Found <> nil) and (Child(Found, 'Errors') = nil) then
      Result := StrToInt64Def(TextOf(Found, 'CbteNro'), -1);
  finally
    Document.Free;
  end;
end;

function QrUrl(const Fecha: string; Cuit: Int64; PtoVta, TipoCmp: Integer; NroCmp: Int64;
  ImporteCents: Int64; const Moneda, Ctz: string; TipoDocRec: Integer; NroDocRec: Int64;
  const CodAut: string): string;
var
  Payload, Importe: string;
begin
  Importe := Format('%d.%.2d', [ImporteCents div 100, Abs(ImporteCents mod 100)]);
  if (ImporteCents < 0) and (ImporteCents > -100) then
    Importe := '-' + Importe;
  Payload := Format('{"ver":1,"fecha":"%s-%s-%s","cuit":%d,"ptoVta":%d,"tipoCmp":%d,"nroCmp":%d,' +
    '"importe":%s,"moneda":"%s","ctz":%s,"tipoDocRec":%d,"nroDocRec":%d,"tipoCodAut":"E","codAut":%s}',
    [Copy(Fecha, 1, 4), Copy(Fecha, 5, 2), Copy(Fecha, 7, 2), Cuit, PtoVta, TipoCmp, NroCmp, Importe,
     Moneda, Ctz, TipoDocRec, NroDocRec, CodAut]);
  Result := 'https://www.afip.gob.ar/fe/qr/?p=' + EncodeStringBase64(Payload);
end;

end.
